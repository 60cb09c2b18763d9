#include "SystemHelper.h"

#include <dlfcn.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/host/HostSystem.h"

const char* gpDebugPrefix = "fmgr";

namespace {

const std::string kRebuildTool = "/opt/app/filedb";

bool IsProgram(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The rebuild tool that was built or installed together with this library or with the running program; empty
// when there is none.
std::string InstalledRebuildTool() {
  std::vector<std::string> directories;
  Dl_info library = {};
  if (dladdr(&gpDebugPrefix, &library) != 0 && library.dli_fname != nullptr) {
    directories.push_back(DirectoryOf(library.dli_fname));
  }
  char program[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", program, sizeof program);
  if (length > 0) directories.push_back(DirectoryOf(std::string(program, static_cast<size_t>(length))));
  for (const std::string& directory : directories) {
    for (const char* place : {"/../bin/filedb", "/filedb"}) {
      if (IsProgram(directory + place)) return directory + place;
    }
  }
  return "";
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The library knows the rebuild tool by its place on the recorder's board. A workstation has it elsewhere.
std::string WithRebuildTool(const std::string& command) {
  if (command.compare(0, kRebuildTool.size() + 1, kRebuildTool + " ") != 0 || IsProgram(kRebuildTool)) {
    return command;
  }
  const std::string tool = InstalledRebuildTool();
  return tool.empty() ? command : ShellQuote(tool) + command.substr(kRebuildTool.size());
}

}  // namespace

int SystemFmt(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  if (length < 0) return -1;
  std::string command(static_cast<size_t>(length) + 1, '\0');
  va_start(arguments, format);
  std::vsnprintf(command.data(), command.size(), format, arguments);
  va_end(arguments);
  command.resize(static_cast<size_t>(length));
  if (!HostCommandsAllowed()) {
    std::fprintf(stderr, "Dbg (%s) needs '%s': not done while only looking\n", gpDebugPrefix, command.c_str());
    return 0;
  }
  return std::system(("exec 1>&2; " + WithRebuildTool(command)).c_str());
}

int MakeLink(const char* target, const char* link) { return symlink(target, link); }

int IsExistFile(const char* path) {
  // What a link points to is not asked: a name that is taken is taken, and must not be used for another file.
  struct stat info = {};
  return lstat(path, &info) == 0 ? 1 : 0;
}

int GetFileCount(const char* pattern) {
  glob_t matches = {};
  const int count = glob(pattern, GLOB_NOSORT, nullptr, &matches) == 0 ? static_cast<int>(matches.gl_pathc) : 0;
  globfree(&matches);
  return count;
}

int GetFileSize(const char* path) {
  struct stat info = {};
  if (stat(path, &info) != 0) return 0;
  return info.st_size > INT_MAX ? INT_MAX : static_cast<int>(info.st_size);
}
