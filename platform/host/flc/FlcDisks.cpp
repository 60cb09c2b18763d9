#include "platform/host/flc/FlcDisks.h"

#include <endian.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/host/flc/FlcReader.h"

namespace {

using State = FlcDataDirectory::State;

int ListDirectories(FlcDisk& disk) {
  if (disk.isListed || disk.path.empty()) return 0;
  std::vector<int32_t> indexes;
  const int error = FlcListDirectories(disk.path, &indexes);
  if (error != 0) return error;
  std::sort(indexes.begin(), indexes.end());
  for (const int32_t index : indexes) disk.FindOrMake(index);
  disk.isListed = true;
  return 0;
}

}  // namespace

uint64_t FlcDiskKey(const FlcDiskName& name) {
  uint64_t key = 0;
  static_assert(sizeof key == sizeof name);
  std::memcpy(&key, name, sizeof key);
  key = le64toh(key);  // the first byte in the lowest bits
  // The top bit of each byte that is zero, exact up to the first of them.
  const uint64_t zeros = (key - 0x0101010101010101) & ~key & 0x8080808080808080;
  if (zeros != 0) key &= ((zeros & -zeros) >> 7) - 1;
  return key;
}

void FlcDataDirectory::Become(State newState, std::unique_ptr<FlcDirectory> newFiles) {
  state = newState;
  isReady = state == State::kRead;
  files = std::move(newFiles);
  FilesChanged();
}

void FlcDataDirectory::FilesChanged() {
  count = files != nullptr ? static_cast<uint32_t>(files->Count()) : 0;
  latestEnd = count > 0 ? files->LatestEnd() : 0;
  oldest = count > 0 ? files->Oldest() : FlcFile{UINT32_MAX, 0, 0};
  newest = count > 0 ? files->Newest() : FlcFile{0, 0, 0};
}

FlcDataDirectory* FlcDisk::Find(int32_t index) {
  if (directories.empty() || index < directories.front().index) return nullptr;
  // Mostly they follow one another without a gap.
  const auto guess = static_cast<size_t>(index - directories.front().index);
  if (guess < directories.size() && directories[guess].index == index) return &directories[guess];
  const auto found =
      std::lower_bound(directories.begin(), directories.end(), index,
                       [](const FlcDataDirectory& each, int32_t limit) { return each.index < limit; });
  return found != directories.end() && found->index == index ? &*found : nullptr;
}

FlcDataDirectory& FlcDisk::FindOrMake(int32_t index) {
  if (FlcDataDirectory* known = Find(index)) return *known;
  isSettled = false;
  const auto after =
      std::upper_bound(directories.begin(), directories.end(), index,
                       [](int32_t limit, const FlcDataDirectory& each) { return limit < each.index; });
  const auto made = directories.emplace(after);
  made->index = index;
  return *made;
}

bool FlcDisk::Drop(int32_t index) {
  const FlcDataDirectory* directory = Find(index);
  if (directory == nullptr) return false;
  directories.erase(directories.begin() + (directory - directories.data()));
  return true;
}

void FlcDisks::Attach(const FlcDiskName& name, const char* path) {
  const FlcDisk* known = Find(FlcDiskKey(name));
  // What requests alone had made has no place in the order of attachment.
  if (known != nullptr && known->path.empty()) mDisks.erase(mDisks.begin() + (known - mDisks.data()));
  FlcDisk& disk = FindOrMake(name);
  disk.path = path;
  disk.isListed = false;
  disk.isSettled = false;
  disk.directories.clear();
}

int FlcDisks::Detach(uint64_t key) {
  const FlcDisk* disk = Find(key);
  if (disk == nullptr || disk->path.empty()) return ENODEV;
  mDisks.erase(mDisks.begin() + (disk - mDisks.data()));
  return 0;
}

int FlcDisks::Forget(uint64_t key, int32_t index) {
  FlcDisk* disk = Find(key);
  if (disk == nullptr || disk->path.empty()) return ENODEV;
  if (index == FLC_ANY_REPOSITORY) disk->isListed = false;
  disk->isSettled = false;
  for (FlcDataDirectory& directory : disk->directories) {
    // A directory that is being deleted stays closed: reading it would bring back what is about to go.
    const bool isMeant = index == FLC_ANY_REPOSITORY || index == directory.index;
    if (isMeant && directory.state != State::kUnregistered) directory.Become(State::kUnread, nullptr);
  }
  return 0;
}

void FlcDisks::Clear() {
  const auto isAttached = [](const FlcDisk& disk) { return !disk.path.empty(); };
  mDisks.erase(std::stable_partition(mDisks.begin(), mDisks.end(), isAttached), mDisks.end());
  for (FlcDisk& disk : mDisks) {
    disk.isListed = false;
    disk.isSettled = false;
    disk.directories.clear();
  }
}

FlcDisk* FlcDisks::Find(uint64_t key) {
  for (FlcDisk& disk : mDisks) {
    if (disk.key == key) return &disk;
  }
  return nullptr;
}

FlcDisk& FlcDisks::FindOrMake(const FlcDiskName& name) {
  const uint64_t key = FlcDiskKey(name);
  if (FlcDisk* disk = Find(key)) return *disk;
  mDisks.emplace_back();
  mDisks.back().key = key;
  const uint64_t bytes = htole64(key);
  std::memcpy(mDisks.back().name, &bytes, sizeof bytes);
  return mDisks.back();
}

int FlcDisks::Open(FlcDisk& disk, int32_t index, FlcDataDirectory** directory) {
  FlcDataDirectory* found = disk.Find(index);
  if (found == nullptr || found->state != State::kRead) {
    const int error = Read(disk, index);
    if (error != 0) return error;
    found = disk.Find(index);
  }
  *directory = found;
  return 0;
}

int FlcDisks::Read(FlcDisk& disk, int32_t index) {
  FlcDataDirectory* known = disk.Find(index);
  if (known != nullptr && known->state == State::kUnregistered) return ENOENT;
  if (known != nullptr) known->isReady = false;
  if (!disk.path.empty()) {
    auto files = std::make_unique<FlcDirectory>();
    const int error = FlcReadDirectory(disk.path, index, files.get());
    if (error == 0) disk.FindOrMake(index).Become(State::kRead, std::move(files));
    if (error != ENOENT) return error;
  }
  if (known != nullptr && known->state == State::kMemoryOnly) {
    known->isReady = true;
    return 0;
  }
  if (known != nullptr) disk.Drop(index);
  return ENOENT;
}

// Opens every directory of a disk that isn't settled.
void FlcDisks::OpenEach(FlcDisk& disk, FlcConcern* concern) {
  const int listing = ListDirectories(disk);
  if (listing != 0) concern->error = listing;
  disk.isSettled = false;
  bool isSettled = listing == 0;
  for (size_t i = 0; i < disk.directories.size();) {
    const int32_t index = disk.directories[i].index;
    FlcDataDirectory* directory = nullptr;
    const int error = Open(disk, index, &directory);
    if (error != 0 && error != ENOENT) concern->error = error;
    if (i == disk.directories.size() || disk.directories[i].index != index) continue;  // it has gone
    const State state = disk.directories[i].state;
    if (state == State::kUnread || (state == State::kMemoryOnly && !disk.path.empty())) isSettled = false;
    ++i;
  }
  disk.isSettled = isSettled;
}

FlcConcern FlcDisks::Concerned(uint64_t key, int32_t index) {
  FlcConcern concern{key, index};
  if (index < FLC_ANY_REPOSITORY) {
    concern.error = EINVAL;
    return concern;
  }
  if (key != 0 && index != FLC_ANY_REPOSITORY) {
    concern.disk = Find(key);
    concern.error = concern.disk != nullptr ? Open(*concern.disk, index, &concern.directory) : ENOENT;
    return concern;
  }
  bool isKnown = false;
  for (FlcDisk& disk : mDisks) {
    if (key != 0 && disk.key != key) continue;
    if (index == FLC_ANY_REPOSITORY) {
      isKnown = true;
      if (!disk.isSettled) OpenEach(disk, &concern);
      continue;
    }
    FlcDataDirectory* directory = nullptr;
    const int error = Open(disk, index, &directory);
    if (error == 0) isKnown = true;
    if (error != 0 && error != ENOENT) concern.error = error;
  }
  if (concern.error == 0 && !isKnown) concern.error = ENOENT;
  return concern;
}
