// Lines for people, on standard output and standard error. Names come from disks that others have been at,
// addresses from cameras, errors from other programs: nothing of them may act on a terminal, break a line or
// turn it around.
#pragma once

#include <string>

namespace recorder {

// The text with "?" for each byte of a control character, of one that changes the direction of writing, and of
// what is no valid UTF-8.
std::string Printable(const std::string& text);

// Formats and writes to standard output. Line ends stay, all else is made printable.
void Print(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One line on standard error, "recorder: " in front, made printable.
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace recorder
