#include "apps/recorder/clip/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "apps/recorder/base/Files.h"

namespace recorder {

namespace {

Refusal CannotWrite(const std::string& path, int error) {
  return "cannot write " + path + ": " + std::strerror(error);
}

std::string RealPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  std::string result = real != nullptr ? real : "";
  free(real);
  return result;
}

bool IsBelow(const std::string& path, const std::string& directory) {
  return !directory.empty() && (path + "/").rfind(directory + "/", 0) == 0;
}

Refusal RefuseTaken(const std::string& path, bool force) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return std::nullopt;
  if (!S_ISREG(st.st_mode)) return "cannot write " + path + ": it is not a regular file";
  if (force) return std::nullopt;
  return path + " exists already; --force replaces it";
}

}  // namespace

OutputFile::~OutputFile() {
  if (!mTemporary.empty()) unlink(mTemporary.c_str());
}

Refusal OutputFile::Create(const std::string& path, bool force, const Disks& disks) {
  mPath = path;
  mForce = force;
  if (NameOf(path).empty()) return "cannot write " + path + ": it is not the name of a file";
  if (Refusal refusal = RefuseTaken(path, force)) return refusal;
  const std::string directory = DirectoryOf(path).empty() ? "./" : DirectoryOf(path);
  const std::string real = RealPath(directory);
  if (real.empty()) return CannotWrite(path, errno);
  for (const Disk& disk : disks.All()) {
    if (IsBelow(real, RealPath(disk.path))) {
      return "cannot write " + path + ": disk " + disk.name + " is for recordings only";
    }
  }
  std::string temporary = directory + ".recorder-XXXXXX";
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return CannotWrite(path, errno);
  mTemporary = temporary;
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  return std::nullopt;
}

Refusal OutputFile::Keep() {
  const int fd = open(mTemporary.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return CannotWrite(mPath, errno);
  const bool durable = fsync(fd) == 0;
  const int error = errno;
  close(fd);
  if (!durable) return CannotWrite(mPath, error);

  // The name may have been taken meanwhile. Not every file system can tell in the same step.
  int result = renameat2(AT_FDCWD, mTemporary.c_str(), AT_FDCWD, mPath.c_str(), mForce ? 0 : RENAME_NOREPLACE);
  if (result != 0 && errno == EINVAL) {
    if (Refusal refusal = RefuseTaken(mPath, mForce)) return refusal;
    result = rename(mTemporary.c_str(), mPath.c_str());
  }
  if (result != 0 && errno == EEXIST) return RefuseTaken(mPath, false);
  if (result != 0) return CannotWrite(mPath, errno);
  mTemporary.clear();
  SyncDirectory(DirectoryOf(mPath).empty() ? "." : DirectoryOf(mPath));
  return std::nullopt;
}

}  // namespace recorder
