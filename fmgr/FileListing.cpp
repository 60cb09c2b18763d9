#include "fmgr/FileListing.h"

#include <glob.h>

#include <cstdarg>
#include <cstdio>

namespace fmgr {

std::string BoundedPattern(const char* format, ...) {
  char buffer[64];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

std::string RecordFilePattern(const std::string& directory) {
  return BoundedPattern("%s/*%s", directory.c_str(), ".imf");
}

int Expand(const std::string& pattern, std::vector<std::string>& paths) {
  glob_t matches{};
  const int result = glob(pattern.c_str(), 0, nullptr, &matches);
  if (result == 0) paths.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
  globfree(&matches);
  return result == GLOB_NOMATCH ? 0 : result;
}

}  // namespace fmgr
