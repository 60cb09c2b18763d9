// Lines for people, on standard output and standard error. Names come from disks that others have been at,
// addresses from cameras, errors from other programs: nothing of them may act on a terminal, break a line or
// turn it around. May be used by any number of threads.
#pragma once

#include <cstdint>
#include <string>

namespace recorder {

// The text with "?" for each byte of a control character, of one that changes the direction of writing, and of
// what is no valid UTF-8.
std::string Printable(const std::string& text);

// Formats and writes a line, or a part of one, to standard output. A line end at its very end stays, all else
// is made printable.
void Print(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One line on standard error, "recorder: " in front, made printable.
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same of what is no error.
void Remark(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What Complain() wrote last, without what is in front; seconds since the epoch, 0 when it has written nothing.
struct LastComplaint {
  std::string text;
  int64_t seconds = 0;
};
LastComplaint GetLastComplaint();

}  // namespace recorder
