#include "apps/recorder/disks/Room.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace recorder {

namespace {

constexpr uint32_t kZfs = 0x2fc12fc1;  // not in linux/magic.h, as they are not Linux's own
constexpr uint32_t kBcachefs = 0xca451a4e;

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

bool IsMountRoot(const std::string& path, dev_t device) {
  struct statx info = {};
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_TYPE, &info) == 0 &&
      (info.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    return (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  }
  struct stat parent = {};  // older kernels do not tell
  return stat(ParentOf(path).c_str(), &parent) == 0 && parent.st_dev != device;
}

// The device that is mounted where `path` is, from the kernel's list: "36 35 8:1 / /srv rw - ext4 /dev/sda1".
std::string SourceOf(const std::string& path) {
  struct statx info = {};
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &info) != 0 || (info.stx_mask & STATX_MNT_ID) == 0)
    return "";
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    const size_t dash = line.find(" - ");
    if (std::strtoull(line.c_str(), nullptr, 10) != info.stx_mnt_id || dash == std::string::npos) continue;
    std::istringstream words(line.substr(dash + 3));
    std::string type, source;
    words >> type >> source;
    return !source.empty() && source[0] == '/' ? source : "";
  }
  return "";
}

// The subvolumes of one btrfs have device numbers of their own and share its room all the same.
bool IsOfSystem(const std::string& path, dev_t device) {
  struct stat system = {};
  if (stat("/", &system) != 0) return false;
  if (system.st_dev == device) return true;
  const std::string source = SourceOf(path);
  return !source.empty() && source == SourceOf("/");
}

}  // namespace

Refusal LookAtRoom(const std::string& path, Room* room) {
  std::string there = path;
  struct stat info = {};
  while (stat(there.c_str(), &info) != 0) {
    if (errno != ENOENT || there == "/") return "cannot look at " + there + ": " + std::strerror(errno);
    there = ParentOf(there);
  }
  if (!S_ISDIR(info.st_mode)) return there + " is not a directory";
  struct statvfs size = {};
  struct statfs kind = {};
  if (statvfs(there.c_str(), &size) != 0 || statfs(there.c_str(), &kind) != 0) {
    return "cannot find out how much is free at " + there + ": " + std::strerror(errno);
  }
  const auto type = static_cast<uint32_t>(kind.f_type);
  room->total = static_cast<uint64_t>(size.f_blocks) * size.f_frsize;
  room->free = static_cast<uint64_t>(size.f_bavail) * size.f_frsize;
  room->files = size.f_files == 0 ? -1 : static_cast<int64_t>(size.f_favail);  // btrfs counts none
  room->isMountPoint = there == path && IsMountRoot(path, info.st_dev);
  room->isSystem = IsOfSystem(there, info.st_dev);
  room->copiesOnWrite = type == BTRFS_SUPER_MAGIC || type == kZfs || type == kBcachefs;
  return std::nullopt;
}

}  // namespace recorder
