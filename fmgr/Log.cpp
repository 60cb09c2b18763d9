#include "fmgr/Log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "SystemHelper.h"

namespace fmgr {
namespace {

std::string Prefix() { return gpDebugPrefix == nullptr ? "(null)" : gpDebugPrefix; }

// One call to stdio per line, so that lines of several threads of the recorder don't run into one another. Each
// is formatted once, as a rule: every hand-out tells of several moves.
__attribute__((format(printf, 2, 0))) void Print(std::string line, const char* format, va_list arguments,
                                                 const char* tail) {
  va_list again;
  va_copy(again, arguments);
  char text[512];
  const int size = std::vsnprintf(text, sizeof text, format, arguments);
  if (size > 0 && static_cast<size_t>(size) < sizeof text) {
    line.append(text, static_cast<size_t>(size));
  } else if (size > 0) {
    const size_t head = line.size();
    line.resize(head + static_cast<size_t>(size));
    std::vsnprintf(&line[head], static_cast<size_t>(size) + 1, format, again);
  }
  va_end(again);
  line += tail;
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void LogError(const char* unit, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Print("\033[31;1mErr (" + Prefix() + "/" + unit + ":" + std::to_string(line) + ") ", format, arguments,
        "\033[0m");
  va_end(arguments);
}

void LogDebug(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Print("Dbg (" + Prefix() + ") ", format, arguments, "");
  va_end(arguments);
}

}  // namespace fmgr
