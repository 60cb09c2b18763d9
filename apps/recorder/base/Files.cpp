#include "apps/recorder/base/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace recorder {

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListDirectory(const std::string& path) {
  std::vector<std::string> names;
  ListDirectory(path, &names);
  return names;
}

int ListDirectory(const std::string& path, std::vector<std::string>* names) {
  names->clear();
  DIR* directory = opendir(path.c_str());
  if (directory == nullptr) return errno;
  errno = 0;
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names->push_back(name);
  }
  const int error = errno;
  closedir(directory);
  std::sort(names->begin(), names->end());
  return error;
}

bool HasSuffix(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string DirectoryOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool RenameToNew(int fromDirectory, const std::string& from, int toDirectory, const std::string& to) {
  if (renameat2(fromDirectory, from.c_str(), toDirectory, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system that does not know the flag. Nobody else makes names here while the locks are held.
  struct stat st;
  if (fstatat(toDirectory, to.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return false;
  }
  return renameat(fromDirectory, from.c_str(), toDirectory, to.c_str()) == 0;
}

bool RenameToNew(const std::string& from, const std::string& to) {
  return RenameToNew(AT_FDCWD, from, AT_FDCWD, to);
}

bool SyncDirectory(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool done = fsync(fd) == 0;
  const int error = errno;
  close(fd);
  errno = error;
  return done;
}

std::optional<std::string> ReadSmallFile(const std::string& path, size_t limit, int flags) {
  const int fd = open(path.c_str(), O_RDONLY | flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st = {};
  std::string text(limit, '\0');
  ssize_t size = -1;
  const bool isRegular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (isRegular) size = pread(fd, text.data(), text.size(), 0);
  const int error = isRegular ? errno : S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  close(fd);
  errno = error;
  if (size < 0) return std::nullopt;
  text.resize(static_cast<size_t>(size));
  return text;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
  const std::string next = path + ".next";
  unlink(next.c_str());
  const int fd = open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  errno = ENOSPC;  // of a short write
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) == 0 && written && rename(next.c_str(), path.c_str()) == 0) return true;
  const int error = errno;
  unlink(next.c_str());
  errno = error;
  return false;
}

}  // namespace recorder
