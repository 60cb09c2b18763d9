#include "apps/recorder/disks/DirectoryLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

using Inode = std::pair<dev_t, ino_t>;

// The files that this process has locked. Opening and closing one of them again would drop its lock.
std::mutex gMutex;
std::set<Inode> gHeld;

std::string LockPath(const std::string& directory) { return directory + "/" + kLockFile; }

std::string HostName() {
  char name[65] = "";
  if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
  return name;
}

struct flock WholeFile(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

Inode InodeOf(const struct stat& info) { return {info.st_dev, info.st_ino}; }

// -1: `reason` tells why. The file was put there by whoever may write to the disk, so it is opened only when it
// is what a recorder makes.
int OpenLockFile(const std::string& directory, int flags, std::string* reason) {
  const std::string path = LockPath(directory);
  const auto refuse = [&](const char* why) {
    *reason = "cannot use " + path + " as a lock: " + why;
    return -1;
  };
  struct stat info = {};
  struct stat parent = {};
  if (stat(directory.c_str(), &parent) != 0) return refuse(std::strerror(errno));
  if (lstat(path.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) return refuse("it is not a regular file");
    if (gHeld.count(InodeOf(info)) != 0) return refuse("this process holds it already, by another way there");
  }
  const int fd = open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
  if (fd < 0) return refuse(std::strerror(errno));
  const char* why = nullptr;
  if (fstat(fd, &info) != 0)
    why = std::strerror(errno);
  else if (!S_ISREG(info.st_mode))
    why = "it is not a regular file";
  else if (info.st_dev != parent.st_dev)
    why = "it is on another file system than its directory";
  else if (info.st_nlink != 1)
    why = "it has a second name or none";
  if (why == nullptr) return fd;
  close(fd);
  return refuse(why);
}

// "PID COMMAND SINCE HOST" as the holder wrote it, made fit for a message. `pid` is the kernel's: it knows
// better on one machine, and nothing (0 and less) of another's processes.
std::string DescribeHolder(int fd, pid_t pid) {
  char text[160];
  const ssize_t size = pread(fd, text, sizeof text - 1, 0);
  text[size < 0 ? 0 : size] = '\0';
  long written = 0;
  long long since = 0;
  char command[32] = "";
  char host[65] = "";
  const int words = std::sscanf(text, "%ld %31[a-z-] %lld %64[A-Za-z0-9._-]", &written, command, &since, host);
  const bool isStale = words < 4 || (pid > 0 && pid != written && host == HostName());
  if (isStale) return pid > 0 ? "another process (pid " + std::to_string(pid) + ")" : "another process";
  return std::string("recorder ") + command + " (pid " + std::to_string(written) + " on " + host + " since " +
         FormatTime(since) + ")";
}

// Who holds the lock, as far as the kernel knows anybody.
std::optional<std::string> FindHolder(int fd) {
  struct flock lock = WholeFile(F_RDLCK);
  if (fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
  return DescribeHolder(fd, lock.l_pid);
}

// In place, then cut: a disk without a free block takes the new text where the old one was.
void WriteHolder(int fd, const std::string& command) {
  const std::string text = std::to_string(getpid()) + " " + command + " " + std::to_string(std::time(nullptr)) +
                           " " + HostName() + "\n";
  const bool done = pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
  // The lock holds without a text as well; only another's name must not stay.
  if (ftruncate(fd, done ? static_cast<off_t>(text.size()) : 0) != 0) return;
}

}  // namespace

std::optional<std::string> DirectoryLock::Take(const std::string& directory, const std::string& command) {
  if (mFd >= 0) return mDirectory + " is locked by this object already";
  const std::lock_guard<std::mutex> guard(gMutex);
  std::string reason;
  const int fd = OpenLockFile(directory, O_RDWR | O_CREAT, &reason);
  if (fd < 0) return reason;
  struct flock lock = WholeFile(F_WRLCK);
  struct stat info = {};
  if (fcntl(fd, F_SETLK, &lock) != 0) {
    const int error = errno;
    const std::string holder = FindHolder(fd).value_or("another process");
    close(fd);
    if (error == EAGAIN || error == EACCES) return directory + " is in use by " + holder;
    return "cannot lock " + LockPath(directory) + ": " + std::strerror(error);
  }
  fstat(fd, &info);
  mInode = InodeOf(info);
  gHeld.insert(mInode);
  WriteHolder(fd, command);
  mDirectory = directory;
  mFd = fd;
  return std::nullopt;
}

std::optional<std::string> DirectoryLock::Confirm() {
  if (mFd < 0) return "no lock is held";
  struct stat there = {};
  const std::string path = LockPath(mDirectory);
  std::string reason;
  struct flock lock = WholeFile(F_WRLCK);  // taking what one has changes nothing
  if (lstat(path.c_str(), &there) != 0 || InodeOf(there) != mInode) {
    reason = "the lock " + path + " is not there any more";
  } else if (fcntl(mFd, F_SETLK, &lock) != 0) {
    const int error = errno;
    reason = "the lock " + path + " was lost: " + FindHolder(mFd).value_or(std::strerror(error));
  }
  if (reason.empty()) return std::nullopt;
  Release();
  return reason;
}

void DirectoryLock::Release() {
  if (mFd < 0) return;
  const std::lock_guard<std::mutex> guard(gMutex);
  gHeld.erase(mInode);
  close(mFd);
  mFd = -1;
}

std::optional<std::string> LockSet::Take(const std::string& directory) {
  if (mLocks.count(directory) != 0) return std::nullopt;
  std::optional<std::string> refusal = mLocks[directory].Take(directory, mCommand);
  if (refusal) mLocks.erase(directory);
  return refusal;
}

std::optional<std::string> LockSet::TakeAll(const std::vector<std::string>& directories) {
  std::vector<std::string> taken;
  for (const std::string& directory : directories) {
    if (mLocks.count(directory) != 0) continue;
    std::optional<std::string> refusal = Take(directory);
    if (!refusal) {
      taken.push_back(directory);
      continue;
    }
    for (const std::string& each : taken) Release(each);
    return refusal;
  }
  return std::nullopt;
}

std::optional<std::string> LockSet::Confirm(const std::string& directory) {
  const auto lock = mLocks.find(directory);
  if (lock == mLocks.end()) return directory + " is not locked";
  std::optional<std::string> refusal = lock->second.Confirm();
  if (refusal) mLocks.erase(lock);
  return refusal;
}

std::optional<std::string> HolderOf(const std::string& directory) {
  const std::lock_guard<std::mutex> guard(gMutex);
  struct stat info = {};
  if (lstat(LockPath(directory).c_str(), &info) != 0) return std::nullopt;
  if (gHeld.count(InodeOf(info)) != 0) return "this process";
  std::string reason;
  const int fd = OpenLockFile(directory, O_RDONLY, &reason);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> holder = FindHolder(fd);
  close(fd);
  return holder;
}

}  // namespace recorder
