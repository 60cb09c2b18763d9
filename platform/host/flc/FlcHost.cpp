#include "platform/host/flc/FlcHost.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <tuple>
#include <vector>

#include "Flc.h"
#include "platform/host/flc/FlcDirectory.h"
#include "platform/host/flc/FlcDisks.h"

namespace {

using State = FlcDataDirectory::State;

int Fail(int error) {
  errno = error;
  return -1;
}

int Result(int error) { return error == 0 ? 0 : Fail(error); }

// What a look-up asks of each directory.
struct Search {
  enum class Kind {
    kFirstFrom,  // the first file from the time on
    kLastUpTo,   // the last file up to the time
    kCovering,   // the file that starts at the time, else the first that reaches it
    kNothing,
  };
  Kind kind;
  uint32_t time;
  uint32_t mask;
};

Search SearchOf(unsigned long request, const flc_file_info_param_t& query) {
  using Kind = Search::Kind;
  const uint32_t time = query.startTime;
  const uint32_t mask = query.channelMask;
  switch (request) {
    case FLC_FILE_BY_TIME:
      return {query.query >= 1 ? Kind::kCovering : Kind::kLastUpTo, time, mask};
    case FLC_PREVIOUS_FILE:
      return {time == 0 ? Kind::kNothing : Kind::kLastUpTo, time - 1, mask};
    case FLC_NEXT_FILE:
      return {time == UINT32_MAX ? Kind::kNothing : Kind::kFirstFrom, time + 1, mask};
    case FLC_OLDEST_FILE:
      return {Kind::kFirstFrom, 0, FLC_ALL_CHANNELS};
    default:  // FLC_NEWEST_FILE
      return {Kind::kLastUpTo, UINT32_MAX, FLC_ALL_CHANNELS};
  }
}

const FlcFile* Find(const FlcDataDirectory& directory, const Search& search) {
  const FlcFile& oldest = directory.oldest;
  const FlcFile& newest = directory.newest;
  if (directory.count == 0) return nullptr;
  switch (search.kind) {
    case Search::Kind::kFirstFrom:
      if (search.time <= oldest.startTime && oldest.Passes(search.mask)) return &oldest;
      return directory.files->FirstFrom(search.time, search.mask);
    case Search::Kind::kLastUpTo:
      if (search.time >= newest.startTime && newest.Passes(search.mask)) return &newest;
      return directory.files->LastUpTo(search.time, search.mask);
    case Search::Kind::kCovering:
      if (search.time <= oldest.startTime && search.time <= oldest.endTime && oldest.Passes(search.mask)) {
        return &oldest;
      }
      return directory.files->Covering(search.time, search.mask);
    default:
      return nullptr;
  }
}

// Directories are searched from the side where the answer is likely: the others are passed over then.
bool IsBackwards(const Search& search) { return search.kind == Search::Kind::kLastUpTo; }

// Whether the answer `a` of one directory beats the answer `b` of another that was searched before. Of equal
// start times the one wins that is first in the order of directories.
bool IsBetter(const Search& search, const FlcFile& a, const FlcFile& b) {
  if (search.kind == Search::Kind::kLastUpTo) return a.startTime >= b.startTime;
  if (search.kind == Search::Kind::kCovering) {
    // A recording that starts right at the time asked for comes before an earlier one that covers it.
    if (b.startTime == search.time) return false;
    if (a.startTime == search.time) return true;
  }
  return a.startTime < b.startTime;
}

// False when nothing in the directory can be an answer that beats `best` (null: there is none yet).
bool IsWorthSearching(const Search& search, const FlcDataDirectory& directory, const FlcFile* best) {
  switch (search.kind) {
    case Search::Kind::kFirstFrom:
      return directory.newest.startTime >= search.time &&
             (best == nullptr || directory.oldest.startTime < best->startTime);
    case Search::Kind::kLastUpTo:
      return directory.oldest.startTime <= search.time &&
             (best == nullptr || directory.newest.startTime >= best->startTime);
    case Search::Kind::kCovering:
      if (directory.oldest.startTime <= search.time && search.time <= directory.newest.startTime) return true;
      return directory.latestEnd >= search.time &&
             (best == nullptr || directory.oldest.startTime < best->startTime);
    default:
      return false;
  }
}

void Answer(const FlcDisk& disk, const FlcDataDirectory& directory, const FlcFile& file,
            flc_file_info_param_t* out) {
  std::memcpy(out->diskName, disk.name, sizeof out->diskName);
  out->repository = directory.index;
  out->startTime = file.startTime;
  out->endTime = file.endTime;
  out->channelMask = file.channelMask;
  out->query = 0;
}

class FlcCache {
 public:
  FlcDisks& Disks() { return mDisks; }
  int Serve(unsigned long request, void* argument);

 private:
  int ServeRepository(unsigned long request, const flc_repository_param_t& param);
  int ServeFile(unsigned long request, flc_file_info_param_t* param);
  int Register(const flc_repository_param_t& param);
  int Unregister(const flc_repository_param_t& param);
  int Add(const flc_file_info_param_t& param);
  int Remove(const flc_file_info_param_t& param);
  int LookUp(const Search& search, const FlcConcern& concern, flc_file_info_param_t* param);
  int AtPosition(const FlcConcern& concern, flc_file_info_param_t* param);
  int InInterval(const FlcConcern& concern, flc_file_info_param_t* page);

  FlcDisks mDisks;
};

int FlcCache::Serve(unsigned long request, void* argument) {
  switch (request) {
    case FLC_CLEAR:
      mDisks.Clear();
      return 0;
    case FLC_REGISTER_REPOSITORY:
    case FLC_UNREGISTER_REPOSITORY:
    case FLC_FILE_COUNT:
      if (argument == nullptr) return Fail(EFAULT);
      return ServeRepository(request, *static_cast<const flc_repository_param_t*>(argument));
    case FLC_ADD_FILE:
    case FLC_REMOVE_FILE:
    case FLC_FILE_BY_TIME:
    case FLC_PREVIOUS_FILE:
    case FLC_NEXT_FILE:
    case FLC_FILE_AT_POSITION:
    case FLC_FILES_IN_INTERVAL:
    case FLC_OLDEST_FILE:
    case FLC_NEWEST_FILE:
      if (argument == nullptr) return Fail(EFAULT);
      return ServeFile(request, static_cast<flc_file_info_param_t*>(argument));
    default:
      return Fail(ENOTTY);
  }
}

int FlcCache::ServeRepository(unsigned long request, const flc_repository_param_t& param) {
  const uint64_t key = FlcDiskKey(param.diskName);
  if (request == FLC_FILE_COUNT) {
    const FlcConcern concern = mDisks.Concerned(key, param.repository);
    if (concern.error != 0) return Fail(concern.error);
    size_t count = 0;
    mDisks.ForEach(concern, [&count](const FlcDisk&, const FlcDataDirectory& each) { count += each.count; });
    return static_cast<int>(count);
  }
  if (key == 0 || param.repository < 0) return Fail(EINVAL);
  return request == FLC_REGISTER_REPOSITORY ? Register(param) : Unregister(param);
}

int FlcCache::ServeFile(unsigned long request, flc_file_info_param_t* param) {
  const uint64_t key = FlcDiskKey(param->diskName);
  const bool change = request == FLC_ADD_FILE || request == FLC_REMOVE_FILE;
  if (change && (key == 0 || param->repository < 0 || param->startTime == 0)) return Fail(EINVAL);
  if (request == FLC_ADD_FILE) return Add(*param);
  if (request == FLC_REMOVE_FILE) return Remove(*param);

  const FlcConcern concern = mDisks.Concerned(key, param->repository);
  // Extremes and positions are right only with every directory at hand. Navigation goes on past a disk that
  // can't be read: playback of the others must not end with it.
  const bool needsAll =
      request == FLC_OLDEST_FILE || request == FLC_NEWEST_FILE || request == FLC_FILE_AT_POSITION;
  if (concern.error != 0) {
    bool isAnyReady = false;
    mDisks.ForEach(concern, [&isAnyReady](const FlcDisk&, const FlcDataDirectory&) { isAnyReady = true; });
    if (needsAll || !isAnyReady) return Fail(concern.error);
  }
  if (request == FLC_FILE_AT_POSITION) return AtPosition(concern, param);
  if (request == FLC_FILES_IN_INTERVAL) return InInterval(concern, param);
  return LookUp(SearchOf(request, *param), concern, param);
}

int FlcCache::Register(const flc_repository_param_t& param) {
  // Where the disk has the directory, the next request takes its file names instead.
  auto files = std::make_unique<FlcDirectory>();
  FlcDisk& disk = mDisks.FindOrMake(param.diskName);
  disk.isSettled = false;
  disk.FindOrMake(param.repository).Become(State::kMemoryOnly, std::move(files));
  return 0;
}

int FlcCache::Unregister(const flc_repository_param_t& param) {
  FlcDisk* disk = mDisks.Find(FlcDiskKey(param.diskName));
  if (disk == nullptr) return Fail(ENOENT);
  if (disk->path.empty()) return disk->Drop(param.repository) ? 0 : Fail(ENOENT);
  disk->FindOrMake(param.repository).Become(State::kUnregistered, nullptr);
  return 0;
}

int FlcCache::Add(const flc_file_info_param_t& param) {
  FlcDisk& disk = mDisks.FindOrMake(param.diskName);
  FlcDataDirectory* directory = nullptr;
  const int error = FlcDisks::Open(disk, param.repository, &directory);
  if (error == ENOENT) {
    // Refused after unregister: a list of this file alone would say "empty" once the file has gone.
    if (disk.Find(param.repository) != nullptr) return Fail(ENOENT);
    auto files = std::make_unique<FlcDirectory>();
    directory = &disk.FindOrMake(param.repository);
    directory->Become(State::kMemoryOnly, std::move(files));
  } else if (error != 0) {
    return Fail(error);
  }
  directory->files->Add({param.startTime, param.endTime, param.channelMask});
  directory->FilesChanged();
  return 0;
}

int FlcCache::Remove(const flc_file_info_param_t& param) {
  const FlcConcern concern = mDisks.Concerned(FlcDiskKey(param.diskName), param.repository);
  if (concern.error != 0) return Fail(concern.error);
  if (!concern.directory->files->Remove(param.startTime)) return Fail(ENOENT);
  concern.directory->FilesChanged();
  return 0;
}

int FlcCache::LookUp(const Search& search, const FlcConcern& concern, flc_file_info_param_t* param) {
  const FlcDisk* disk = nullptr;
  const FlcDataDirectory* directory = nullptr;
  const FlcFile* best = nullptr;
  const auto look = [&](const FlcDisk& eachDisk, const FlcDataDirectory& each) {
    if (!IsWorthSearching(search, each, best)) return;
    const FlcFile* file = Find(each, search);
    if (file == nullptr || (best != nullptr && !IsBetter(search, *file, *best))) return;
    disk = &eachDisk;
    directory = &each;
    best = file;
  };
  mDisks.ForEach(concern, look, IsBackwards(search));
  if (best == nullptr) return Fail(ENOENT);
  Answer(*disk, *directory, *best, param);
  return 0;
}

int FlcCache::AtPosition(const FlcConcern& concern, flc_file_info_param_t* param) {
  const auto countUpTo = [&](uint32_t time) {
    size_t count = 0;
    mDisks.ForEach(concern, [&](const FlcDisk&, const FlcDataDirectory& each) {
      if (each.oldest.startTime <= time) count += each.files->CountUpTo(time);
    });
    return count;
  };
  if (param->query < 1 || static_cast<size_t>(param->query) > countUpTo(UINT32_MAX)) return Fail(ENOENT);
  size_t position = static_cast<size_t>(param->query);
  if (concern.directory != nullptr) {
    Answer(*concern.disk, *concern.directory, concern.directory->files->At(position - 1), param);
    return 0;
  }
  // The start time at that position in the merged order; then its file among those with that start time.
  uint32_t low = 1;
  uint32_t high = UINT32_MAX;
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    if (countUpTo(middle) < position) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  position -= countUpTo(low - 1);
  mDisks.ForEach(concern, [&](const FlcDisk& disk, const FlcDataDirectory& each) {
    const FlcFile* file = each.files->FirstFrom(low, FLC_ALL_CHANNELS);
    if (file == nullptr || file->startTime != low || position == 0) return;
    if (--position == 0) Answer(disk, each, *file, param);
  });
  return 0;
}

int FlcCache::InInterval(const FlcConcern& concern, flc_file_info_param_t* page) {
  const flc_file_info_param_t query = *page;
  struct Found {
    const FlcDisk* disk;
    const FlcDataDirectory* directory;
    FlcFile file;
  };
  std::vector<Found> found;
  FlcFile files[FLC_PAGE_SIZE];
  int count = 0;
  mDisks.ForEach(concern, [&](const FlcDisk& disk, const FlcDataDirectory& each) {
    if (each.latestEnd < query.startTime || each.oldest.startTime >= query.endTime) return;
    const size_t here =
        each.files->InInterval(query.startTime, query.endTime, query.channelMask, FLC_PAGE_SIZE, files);
    if (concern.directory == nullptr) {
      for (size_t i = 0; i < here; ++i) found.push_back({&disk, &each, files[i]});
    } else {
      for (size_t i = 0; i < here; ++i) Answer(disk, each, files[i], &page[i]);
      count = static_cast<int>(here);
    }
  });
  if (concern.directory != nullptr) return count;
  std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    return std::tie(a.file.endTime, a.file.startTime) < std::tie(b.file.endTime, b.file.startTime);
  });
  count = static_cast<int>(std::min(found.size(), static_cast<size_t>(FLC_PAGE_SIZE)));
  for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
    Answer(*found[i].disk, *found[i].directory, found[i].file, &page[i]);
  }
  return count;
}

std::mutex gMutex;

// Never destroyed: the library's file manager clears the cache when it goes, which may be at the very end.
FlcCache& Cache() {
  static auto* cache = new FlcCache;
  return *cache;
}

bool IsDiskName(const char* name) {
  const size_t length = name == nullptr ? 0 : strnlen(name, FLC_DISK_NAME_SIZE + 1);
  return length >= 1 && length <= FLC_DISK_NAME_SIZE && std::strchr(name, '/') == nullptr;
}

// Runs one call under the lock. Callers are driver callers: they get -1 for want of memory, never an exception.
template <typename Call>
int Guarded(Call call) {
  const std::lock_guard<std::mutex> lock(gMutex);
  try {
    return call(Cache());
  } catch (const std::bad_alloc&) {
    return Fail(ENOMEM);
  }
}

}  // namespace

int FlcIoctl(unsigned long request, void* argument) {
  return Guarded([=](FlcCache& cache) { return cache.Serve(request, argument); });
}

int FlcAttachDisk(const char* diskName, const char* directory) {
  struct stat status;
  if (!IsDiskName(diskName) || directory == nullptr) return Fail(EINVAL);
  if (stat(directory, &status) != 0) return -1;
  if (!S_ISDIR(status.st_mode)) return Fail(ENOTDIR);
  FlcDiskName name;
  FlcSetDiskName(name, diskName);
  return Guarded([&](FlcCache& cache) {
    cache.Disks().Attach(name, directory);
    return 0;
  });
}

int FlcDetachDisk(const char* diskName) {
  if (!IsDiskName(diskName)) return Fail(EINVAL);
  FlcDiskName name;
  FlcSetDiskName(name, diskName);
  return Guarded([&](FlcCache& cache) { return Result(cache.Disks().Detach(FlcDiskKey(name))); });
}

int FlcForget(const char* diskName, int index) {
  if (!IsDiskName(diskName) || index < FLC_ANY_REPOSITORY) return Fail(EINVAL);
  FlcDiskName name;
  FlcSetDiskName(name, diskName);
  return Guarded([&](FlcCache& cache) { return Result(cache.Disks().Forget(FlcDiskKey(name), index)); });
}
