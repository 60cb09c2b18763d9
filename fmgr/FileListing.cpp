#include "fmgr/FileListing.h"

#include <dirent.h>
#include <glob.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace fmgr {
namespace {

// With fewer bits, readdir(3) breaks off in a large file system.
static_assert(sizeof(off_t) == 8);

// glob(3) takes a failing readdir(3) for the directory's end, and has no place for a context in its functions.
thread_local bool tIsBrokenOff = false;

void* OpenDirectory(const char* path) {
  DIR* directory = opendir(path);
  if (directory == nullptr && errno != ENOENT && errno != ENOTDIR) tIsBrokenOff = true;
  return directory;
}

dirent* ReadDirectory(void* directory) {
  errno = 0;
  dirent* entry = readdir(static_cast<DIR*>(directory));
  if (entry == nullptr && errno != 0) tIsBrokenOff = true;
  return entry;
}

void CloseDirectory(void* directory) { closedir(static_cast<DIR*>(directory)); }

}  // namespace

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
  matches.gl_opendir = OpenDirectory;
  matches.gl_readdir = ReadDirectory;
  matches.gl_closedir = CloseDirectory;
  matches.gl_lstat = lstat;
  matches.gl_stat = stat;
  tIsBrokenOff = false;
  int result = glob(pattern.c_str(), GLOB_ALTDIRFUNC, nullptr, &matches);
  if (tIsBrokenOff) result = GLOB_ABORTED;
  if (result == 0) paths.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
  globfree(&matches);
  return result == GLOB_NOMATCH ? 0 : result;
}

}  // namespace fmgr
