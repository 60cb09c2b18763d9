// One process at a time changes what lies under a root directory, and one at a time what lies on a disk:
// whoever records, prepares or repairs holds a lock on the root directory and one on each disk itself, since a
// disk may be reached through two roots, and from two machines.
//
// A lock is fcntl(2)'s write lock on DIRECTORY/.recorder.lock. Unlike flock(2) it is known to reach the other
// machines on NFSv4, GlusterFS and CephFS, and unlike open file description locks it goes with its process on
// file systems in user space, too. It goes with its process however that ends; the file stays, and tells who
// holds the lock, never whether. The price: closing any descriptor of the file drops the lock of the whole
// process, so nothing but this unit opens it, and that never twice.
//
// Safe to use from several threads; each object from one at a time.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace recorder {

constexpr char kLockFile[] = ".recorder.lock";

class DirectoryLock {
 public:
  DirectoryLock() = default;
  ~DirectoryLock() { Release(); }
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  // Nothing when the lock was taken; else a line that says who has it (command, process, host, since when), or
  // why it can't be had. Never waits. `command` is a word of small letters. The lock file is made when missing;
  // only a regular file with one name on the directory's own file system is opened, never a link or a fifo.
  std::optional<std::string> Take(const std::string& directory, const std::string& command);
  // Nothing while the lock is still this object's. A server that lost it, or somebody who removed the file, may
  // have let another machine in: then a line that says so, and the lock counts as released.
  std::optional<std::string> Confirm();
  void Release();
  bool IsHeld() const { return mFd >= 0; }

 private:
  std::string mDirectory;
  std::pair<dev_t, ino_t> mInode;
  int mFd = -1;
};

// The locks of a command that works on several directories, by directory.
class LockSet {
 public:
  explicit LockSet(std::string command) : mCommand(std::move(command)) {}

  // As DirectoryLock::Take; nothing happens when this set holds the lock already.
  std::optional<std::string> Take(const std::string& directory);
  // All or none of those that aren't held yet, in the given order: the refusal is of the first that can't be
  // had.
  std::optional<std::string> TakeAll(const std::vector<std::string>& directories);
  // As DirectoryLock::Confirm; a lock that isn't held any more is dropped from the set.
  std::optional<std::string> Confirm(const std::string& directory);
  // Without effect when the lock isn't held. From then on the disk can be unmounted.
  void Release(const std::string& directory) { mLocks.erase(directory); }

 private:
  const std::string mCommand;
  std::map<std::string, DirectoryLock> mLocks;
};

// The command that holds the lock of `directory`, as "recorder record (pid 123 on nvr2 since
// 2024-05-01T12:00:00+02:00)"; nothing when nobody does, whatever the file says. Only looks: the lock is not
// touched, so a recorder that starts at the same moment isn't turned away.
std::optional<std::string> HolderOf(const std::string& directory);

}  // namespace recorder
