#include "fmgr/Log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "SystemHelper.h"

namespace fmgr {
namespace {

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

}  // namespace

// One call to stdio per line, so that lines of several threads of the recorder don't run into one another.
void LogError(const char* unit, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string message = Format(format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "\033[31;1mErr (%s/%s:%d) %s\033[0m", gpDebugPrefix, unit, line, message.c_str());
}

void LogDebug(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string message = Format(format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "Dbg (%s) %s", gpDebugPrefix, message.c_str());
}

}  // namespace fmgr
