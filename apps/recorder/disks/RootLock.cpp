#include "apps/recorder/disks/RootLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "apps/recorder/base/Files.h"

namespace recorder {

namespace {

std::string LockPath(const std::string& root) { return root + "/.recorder.lock"; }

// "PID COMMAND" as the holder wrote it, made fit for a message.
std::string ReadHolder(int fd) {
  char text[128];
  const ssize_t size = pread(fd, text, sizeof text - 1, 0);
  text[size < 0 ? 0 : size] = '\0';
  long pid = 0;
  char command[32] = "?";
  if (std::sscanf(text, "%ld %31[a-z-]", &pid, command) < 1) return "another process";
  return std::string("recorder ") + command + " (pid " + std::to_string(pid) + ")";
}

}  // namespace

RootLock::~RootLock() {
  if (mFd >= 0) close(mFd);
}

std::optional<std::string> RootLock::Take(const std::string& root, const std::string& command) {
  const std::string path = LockPath(root);
  // Not through a symbolic link: the file is written to, and whoever may write in ROOT could point it anywhere.
  mFd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (mFd < 0) return "cannot open " + path + ": " + std::strerror(errno);
  if (flock(mFd, LOCK_EX | LOCK_NB) != 0) {
    std::string reason = errno == EWOULDBLOCK ? root + " is in use by " + ReadHolder(mFd)
                                              : "cannot lock " + path + ": " + std::strerror(errno);
    close(mFd);
    mFd = -1;
    return reason;
  }
  const std::string holder = std::to_string(getpid()) + " " + command + "\n";
  if (ftruncate(mFd, 0) != 0 || pwrite(mFd, holder.data(), holder.size(), 0) < 0) {
    // A full disk takes no name of the holder; the lock holds all the same.
  }
  return std::nullopt;
}

std::optional<std::string> HolderOfRoot(const std::string& root) {
  const int fd = open(LockPath(root).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st;
  std::optional<std::string> holder;
  if (fstat(fd, &st) == 0) {
    // The kernel's table of locks: "1: FLOCK  ADVISORY  WRITE 123 fe:00:262147 0 EOF", device numbers in
    // hexadecimal. Some file systems show another device number there than here; the inode is the same.
    const std::string inode = ":" + std::to_string(st.st_ino);
    std::ifstream locks("/proc/locks");
    for (std::string line; !holder && std::getline(locks, line);) {
      std::istringstream words(line);
      std::string number, kind, advice, mode, pid, file;
      words >> number >> kind >> advice >> mode >> pid >> file;
      if (kind == "FLOCK" && mode == "WRITE" && HasSuffix(file, inode)) holder = ReadHolder(fd);
    }
  }
  close(fd);
  return holder;
}

}  // namespace recorder
