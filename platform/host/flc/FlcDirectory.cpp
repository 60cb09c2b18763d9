#include "platform/host/flc/FlcDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <tuple>
#include <utility>

#include "platform/host/imf/RecordName.h"

namespace {

bool ByEnd(const FlcFile& a, const FlcFile& b) {
  return std::tie(a.endTime, a.startTime) < std::tie(b.endTime, b.startTime);
}

}  // namespace

FlcDirectory::FlcDirectory(std::deque<FlcFile> files) : mFiles(std::move(files)) {
  // The latest end first, since unique() keeps the first of several.
  std::sort(mFiles.begin(), mFiles.end(), [](const FlcFile& a, const FlcFile& b) {
    return std::tie(a.startTime, b.endTime, b.channelMask) < std::tie(b.startTime, a.endTime, a.channelMask);
  });
  const auto sameStart = [](const FlcFile& a, const FlcFile& b) { return a.startTime == b.startTime; };
  mFiles.erase(std::unique(mFiles.begin(), mFiles.end(), sameStart), mFiles.end());
  mDisorder = DisorderAround(0, mFiles.size());
}

void FlcDirectory::Add(const FlcFile& file) {
  const size_t position = LowerBound(file.startTime);
  const bool replaces = position < mFiles.size() && mFiles[position].startTime == file.startTime;
  const size_t before = DisorderAround(position, replaces ? position + 1 : position);
  if (replaces) {
    mFiles[position] = file;
  } else {
    mFiles.insert(mFiles.begin() + static_cast<std::ptrdiff_t>(position), file);
  }
  mDisorder = mDisorder - before + DisorderAround(position, position + 1);
}

bool FlcDirectory::Remove(uint32_t startTime) {
  const size_t position = LowerBound(startTime);
  if (position == mFiles.size() || mFiles[position].startTime != startTime) return false;
  const size_t before = DisorderAround(position, position + 1);
  mFiles.erase(mFiles.begin() + static_cast<std::ptrdiff_t>(position));
  mDisorder = mDisorder - before + DisorderAround(position, position);
  return true;
}

size_t FlcDirectory::CountUpTo(uint32_t time) const {
  return time == UINT32_MAX ? mFiles.size() : LowerBound(time + 1);
}

const FlcFile* FlcDirectory::FirstFrom(uint32_t time, uint32_t mask) const {
  for (size_t i = LowerBound(time); i < mFiles.size(); ++i) {
    if (mFiles[i].Passes(mask)) return &mFiles[i];
  }
  return nullptr;
}

const FlcFile* FlcDirectory::LastUpTo(uint32_t time, uint32_t mask) const {
  for (size_t i = CountUpTo(time); i > 0; --i) {
    if (mFiles[i - 1].Passes(mask)) return &mFiles[i - 1];
  }
  return nullptr;
}

const FlcFile* FlcDirectory::Covering(uint32_t time, uint32_t mask) const {
  const size_t exact = LowerBound(time);
  if (exact < mFiles.size() && mFiles[exact].startTime == time && mFiles[exact].Passes(mask))
    return &mFiles[exact];
  for (size_t i = FirstReaching(time); i < mFiles.size(); ++i) {
    if (EffectiveEnd(i) >= time && mFiles[i].Passes(mask)) return &mFiles[i];
  }
  return nullptr;
}

void FlcDirectory::AppendInterval(uint32_t from, uint32_t to, uint32_t mask, size_t limit,
                                  std::vector<FlcFile>* out) const {
  const size_t first = out->size();
  for (size_t i = FirstReaching(from); i < mFiles.size() && mFiles[i].startTime < to; ++i) {
    if (mDisorder == 0 && out->size() - first == limit) return;
    const FlcFile& file = mFiles[i];
    if (file.endTime != 0 && file.endTime >= from && file.Passes(mask)) out->push_back(file);
  }
  std::sort(out->begin() + static_cast<std::ptrdiff_t>(first), out->end(), ByEnd);
  if (out->size() - first > limit) out->resize(first + limit);
}

// The first file that starts at or after the time.
size_t FlcDirectory::LowerBound(uint32_t startTime) const {
  const auto found = std::lower_bound(mFiles.begin(), mFiles.end(), startTime,
                                      [](const FlcFile& file, uint32_t time) { return file.startTime < time; });
  return static_cast<size_t>(found - mFiles.begin());
}

uint32_t FlcDirectory::EffectiveEnd(size_t position) const {
  if (mFiles[position].endTime != 0) return mFiles[position].endTime;
  return position + 1 < mFiles.size() ? mFiles[position + 1].startTime : UINT32_MAX;
}

// No file before this one has its effective end at or after the time.
size_t FlcDirectory::FirstReaching(uint32_t time) const {
  if (mDisorder != 0) return 0;
  size_t low = 0;
  size_t high = mFiles.size();
  while (low < high) {
    const size_t middle = low + (high - low) / 2;
    if (EffectiveEnd(middle) < time) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// A change at a position moves the effective end of the file there and of the one before it. So the order may
// change between each file from two before the position up to, not including, `end`, and the file after it.
size_t FlcDirectory::DisorderAround(size_t position, size_t end) const {
  size_t disorder = 0;
  for (size_t i = position < 2 ? 0 : position - 2; i < end && i + 1 < mFiles.size(); ++i) {
    if (EffectiveEnd(i) > EffectiveEnd(i + 1)) ++disorder;
  }
  return disorder;
}

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
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(directory);
    if (entry == nullptr) return errno;
    if (TypeOf(directory, *entry, type) == type) use(std::string(entry->d_name));
  }
}

int ReadNames(DIR* directory, FlcDirectory* out) {
  std::deque<FlcFile> files;
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
