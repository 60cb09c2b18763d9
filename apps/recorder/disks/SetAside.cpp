#include "apps/recorder/disks/SetAside.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"

namespace recorder {

namespace {

constexpr char kName[] = "set_aside";
constexpr int kNames = 9;
constexpr int kMostOfOneName = 100000;

class Descriptor {
 public:
  explicit Descriptor(int fd) : mFd(fd) {}
  ~Descriptor() {
    if (mFd >= 0) close(mFd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return mFd; }

 private:
  const int mFd;
};

int OpenAt(int parent, const std::string& name) {
  return openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::string NthName(int n) { return n == 1 ? kName : kName + ("." + std::to_string(n)); }

// The directory for what is set aside, made when missing; -1 with errno set.
int OpenSetAside(int disk, std::string* name) {
  for (int n = 1; n <= kNames; ++n) {
    *name = NthName(n);
    if (mkdirat(disk, name->c_str(), 0755) != 0 && errno != EEXIST) return -1;
    struct stat st;
    struct stat own;
    const int fd = OpenAt(disk, *name);
    if (fd >= 0 && fstat(fd, &st) == 0 && fstat(disk, &own) == 0 && st.st_dev == own.st_dev) return fd;
    if (fd >= 0) close(fd);
  }
  errno = EEXIST;
  return -1;
}

}  // namespace

bool IsSetAsideName(const std::string& name) {
  for (int n = 1; n <= kNames; ++n) {
    if (name == NthName(n)) return true;
  }
  return false;
}

SetAsideResult SetAside(const std::string& disk, const std::string& path) {
  std::string inner = path.substr(disk.size() + 1);
  if (!inner.empty() && inner.back() == '/') inner.pop_back();
  const std::string name = NameOf(inner);
  const std::string parent = DirectoryOf(inner);
  const Descriptor root(open(disk.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (root.Get() < 0) return {"", errno};
  const Descriptor from(OpenAt(root.Get(), parent.empty() ? "." : parent.substr(0, parent.size() - 1)));
  if (from.Get() < 0) return {"", errno};
  std::string place;
  const Descriptor to(OpenSetAside(root.Get(), &place));
  if (to.Get() < 0) return {"", errno};
  for (int n = 1; n <= kMostOfOneName; ++n) {
    const std::string target = n == 1 ? name : name + "." + std::to_string(n);
    const int error = RenameToNew(from.Get(), name, to.Get(), target) ? 0 : errno;
    if (error == EEXIST) continue;
    if (error != 0) return {"", error};
    std::string now = disk + "/" + place + "/";
    now += target;
    for (const int fd : {root.Get(), from.Get(), to.Get()}) {
      if (fsync(fd) != 0) Complain("%s may be back after a power cut: %s", path.c_str(), std::strerror(errno));
    }
    return {now, 0};
  }
  return {"", EEXIST};
}

}  // namespace recorder
