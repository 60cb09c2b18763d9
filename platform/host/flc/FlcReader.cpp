#include "platform/host/flc/FlcReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

#include "platform/host/imf/RecordName.h"

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using OpenDirectory = std::unique_ptr<DIR, CloseDirectory>;

// Null with errno set on failure. `flags` as for open(2).
OpenDirectory OpenAt(int parent, const char* name, int flags) {
  const int descriptor = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
  if (descriptor < 0) return nullptr;
  OpenDirectory directory(fdopendir(descriptor));
  if (directory == nullptr) {
    const int error = errno;
    close(descriptor);
    errno = error;
  }
  return directory;
}

// Null with errno set; ENODEV when the disk has gone: that is no disk without data directories.
OpenDirectory OpenDisk(const std::string& disk) {
  OpenDirectory directory = OpenAt(AT_FDCWD, disk.c_str(), 0);
  if (directory == nullptr && errno == ENOENT) errno = ENODEV;
  return directory;
}

// DT_DIR, DT_REG and so on, links not followed; some file systems leave it out of the directory.
unsigned char TypeOf(DIR* directory, const dirent& entry, unsigned char wanted) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type;
  struct stat status;
  if (fstatat(dirfd(directory), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) return IFTODT(status.st_mode);
  // A damaged inode doesn't make its file go away: the name says what it is.
  return errno == ENOENT ? static_cast<unsigned char>(DT_UNKNOWN) : wanted;
}

// With fewer bits, readdir(3) breaks off in a large file system.
static_assert(sizeof(off_t) == 8);

// Calls use(name) for each entry of that type. 0, or the errno of a failure to read the directory to its end.
template <typename Use>
int ForEachEntry(DIR* directory, unsigned char type, Use use) {
  std::string name;  // one for all: most don't fit into a string without an allocation
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(directory);
    if (entry == nullptr) return errno;
    if (TypeOf(directory, *entry, type) == type) use(name.assign(entry->d_name));
  }
}

int ReadNames(DIR* directory, FlcDirectory* out) {
  std::vector<FlcFile> files;
  const int error = ForEachEntry(directory, DT_REG, [&files](const std::string& name) {
    RecordName parsed;
    if (ParseRecordName(name, &parsed)) files.push_back({parsed.startTime, parsed.endTime, parsed.channelMask});
  });
  if (error == 0) *out = FlcDirectory(std::move(files));
  return error;
}

// Something else of that name, or nothing: not a data directory.
bool IsNoDirectory(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

}  // namespace

int FlcReadDirectory(const std::string& disk, int32_t index, FlcDirectory* out) {
  const OpenDirectory parent = OpenDisk(disk);
  if (parent == nullptr) return errno;
  char usual[32];
  std::snprintf(usual, sizeof usual, "data_%08d", index);
  OpenDirectory directory = OpenAt(dirfd(parent.get()), usual, O_NOFOLLOW);
  if (directory == nullptr && IsNoDirectory(errno)) {
    std::string other;  // the first in alphabetical order
    const int error = ForEachEntry(parent.get(), DT_DIR, [index, &other](const std::string& name) {
      if (ParseDataDirectoryName(name) == index && (other.empty() || name < other)) other = name;
    });
    if (error != 0) return error;
    if (other.empty()) return ENOENT;
    directory = OpenAt(dirfd(parent.get()), other.c_str(), O_NOFOLLOW);
  }
  if (directory == nullptr) return errno;
  // What is mounted there is not the disk's: no file could be moved from it to the pool or back.
  struct stat own, other;
  if (fstat(dirfd(parent.get()), &own) != 0 || fstat(dirfd(directory.get()), &other) != 0) return errno;
  if (own.st_dev != other.st_dev) return EXDEV;
  return ReadNames(directory.get(), out);
}

int FlcListDirectories(const std::string& disk, std::vector<int32_t>* out) {
  const OpenDirectory parent = OpenDisk(disk);
  if (parent == nullptr) return errno;
  return ForEachEntry(parent.get(), DT_DIR, [out](const std::string& name) {
    const int index = ParseDataDirectoryName(name);
    if (index >= 0) out->push_back(index);
  });
}
