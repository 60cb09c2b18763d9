#include "apps/recorder/base/Lines.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>

namespace recorder {

namespace {

std::mutex gMutex;  // guards what follows
LastComplaint gLast;

// The character that begins at `text[at]`, and its length. 0 bytes: not valid.
uint32_t CharacterAt(const std::string& text, size_t at, size_t* length) {
  const auto byte = [&text](size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : '\0'); };
  const unsigned char first = byte(at);
  *length = first < 0x80 ? 1 : first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
  if (*length < 2) return first;
  uint32_t character = first & (0xffu >> (*length + 1));
  for (size_t i = at + 1; i < at + *length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) *length = 0;
    character = character << 6 | (byte(i) & 0x3f);
    if (*length == 0) return 0;
  }
  const bool isLonger = (*length == 3 && character < 0x800) || (*length == 4 && character < 0x10000);
  const bool isNone = (character >= 0xd800 && character < 0xe000) || character > 0x10ffff;
  if (isLonger || isNone) *length = 0;
  return character;
}

bool IsControl(uint32_t character) {
  return character < 0x20 || (character >= 0x7f && character < 0xa0) || character == 0x200e ||
         character == 0x200f ||                           // marks of direction
         (character >= 0x2028 && character <= 0x202e) ||  // separators of lines, directions
         (character >= 0x2066 && character <= 0x2069);    // isolated directions
}

bool IsPlain(char character) { return character >= 0x20 && character < 0x7f; }

__attribute__((format(printf, 1, 0))) std::string Formatted(const char* format, va_list arguments) {
  char* formatted = nullptr;
  if (vasprintf(&formatted, format, arguments) < 0) return "";
  const std::unique_ptr<char, decltype(&std::free)> text(formatted, std::free);
  return text.get();
}

}  // namespace

std::string Printable(const std::string& text) {
  if (std::all_of(text.begin(), text.end(), IsPlain)) return text;
  std::string shown;
  for (size_t at = 0; at < text.size();) {
    size_t length = 0;
    const uint32_t character = CharacterAt(text, at, &length);
    if (length == 0 || IsControl(character)) {
      length = length == 0 ? 1 : length;
      shown.append(length, '?');
    } else {
      shown.append(text, at, length);
    }
    at += length;
  }
  return shown;
}

void Print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = Formatted(format, arguments);
  va_end(arguments);
  const bool isWhole = !text.empty() && text.back() == '\n';
  if (isWhole) text.pop_back();
  text = Printable(text);
  if (isWhole) text += '\n';
  std::fputs(text.c_str(), stdout);
}

void Complain(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Printable(Formatted(format, arguments));
  va_end(arguments);
  {
    const std::lock_guard<std::mutex> lock(gMutex);
    gLast = {text, std::time(nullptr)};
  }
  Remark("%s", text.c_str());
}

void Remark(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Formatted(format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "recorder: %s\n", Printable(text).c_str());
}

LastComplaint GetLastComplaint() {
  const std::lock_guard<std::mutex> lock(gMutex);
  return gLast;
}

}  // namespace recorder
