// One process at a time changes what lies under a root directory. The lock is an flock(2) on
// ROOT/.recorder.lock, so it goes with its process however that ends; the file itself stays and only tells who
// holds it.
#pragma once

#include <optional>
#include <string>

namespace recorder {

class RootLock {
 public:
  RootLock() = default;
  ~RootLock();
  RootLock(const RootLock&) = delete;
  RootLock& operator=(const RootLock&) = delete;

  // Nothing when the lock was taken; else a line that says who has it, or why it can't be had. Never waits.
  std::optional<std::string> Take(const std::string& root, const std::string& command);

 private:
  int mFd = -1;
};

// The command that holds the lock of `root`, as "recorder record (pid 123)"; nothing when nobody does. Only
// looks: the lock is not touched, so a recorder that starts at the same moment isn't turned away.
std::optional<std::string> HolderOfRoot(const std::string& root);

}  // namespace recorder
