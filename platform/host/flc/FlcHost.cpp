#include "platform/host/flc/FlcHost.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Flc.h"
#include "platform/host/flc/FlcDirectory.h"

namespace {

struct DataDirectory {
  enum class State {
    kUnread,        // stands on the disk; read on the first request that concerns it
    kRead,          // from now on only requests change it
    kMemoryOnly,    // made by requests; gives way to a directory of that number as soon as the disk has one
    kUnregistered,  // about to be deleted: answers nothing and is not read again
  };
  State state = State::kUnread;
  FlcDirectory files;
};

struct Disk {
  std::string name;
  std::string path;     // its directory; empty for a disk that is not attached and known only through requests
  bool listed = false;  // the data directories on the disk are all in `directories`
  std::map<int32_t, DataDirectory> directories;
};

// One data directory that a request concerns, its records ready.
struct Place {
  const Disk* disk;
  int32_t index;
  FlcDirectory* files;
};

// All that a request concerns, by order of attachment, then index.
struct Places {
  std::vector<Place> ready;
  int error = 0;  // errno: ENOENT, nothing of that name is known; else some directory could not be read
};

int Fail(int error) {
  errno = error;
  return -1;
}

// What a look-up answers from one directory; null for nothing.
const FlcFile* Find(const FlcDirectory& files, unsigned long request, const flc_file_info_param_t& query) {
  const uint32_t time = query.startTime;
  switch (request) {
    case FLC_FILE_BY_TIME:
      return query.query >= 1 ? files.Covering(time, query.channelMask)
                              : files.LastUpTo(time, query.channelMask);
    case FLC_PREVIOUS_FILE:
      return time == 0 ? nullptr : files.LastUpTo(time - 1, query.channelMask);
    case FLC_NEXT_FILE:
      return time == UINT32_MAX ? nullptr : files.FirstFrom(time + 1, query.channelMask);
    case FLC_OLDEST_FILE:
      return files.Count() == 0 ? nullptr : &files.At(0);
    default:  // FLC_NEWEST_FILE
      return files.Count() == 0 ? nullptr : &files.At(files.Count() - 1);
  }
}

// Whether the answer `a` of one directory beats the answer `b` of another. Of equal start times neither does.
bool IsBetter(unsigned long request, const flc_file_info_param_t& query, const FlcFile& a, const FlcFile& b) {
  const bool later = request == FLC_PREVIOUS_FILE || request == FLC_NEWEST_FILE ||
                     (request == FLC_FILE_BY_TIME && query.query <= 0);
  if (later) return a.startTime > b.startTime;
  // A recording that starts right at the time asked for comes before an earlier one that covers it.
  if (request == FLC_FILE_BY_TIME && b.startTime == query.startTime) return false;
  if (request == FLC_FILE_BY_TIME && a.startTime == query.startTime) return true;
  return a.startTime < b.startTime;
}

void Answer(const Place& place, const FlcFile& file, flc_file_info_param_t* out) {
  *out = FlcFileParam(place.disk->name.c_str(), place.index, file.startTime, file.endTime, file.channelMask);
}

class FlcCache {
 public:
  int Attach(const std::string& name, const char* directory);
  int Detach(const std::string& name);
  int Forget(const std::string& name, int index);
  int Serve(unsigned long request, void* argument);

 private:
  using State = DataDirectory::State;

  Disk* FindDisk(const std::string& name);
  Disk& FindOrMakeDisk(const std::string& name);
  static int Open(Disk& disk, int32_t index);
  static int ListDirectories(Disk& disk);
  static void OpenEach(Disk& disk, int32_t index, Places* places);
  Places Concerned(const std::string& name, int32_t index);

  int Clear();
  int ServeRepository(unsigned long request, const flc_repository_param_t& param);
  int ServeFile(unsigned long request, flc_file_info_param_t* param);
  int Register(const std::string& name, int32_t index);
  int Unregister(const std::string& name, int32_t index);
  int Add(const std::string& name, const flc_file_info_param_t& param);
  int Remove(const std::string& name, const flc_file_info_param_t& param);
  static int LookUp(unsigned long request, const Places& places, flc_file_info_param_t* param);
  static int AtPosition(const Places& places, flc_file_info_param_t* param);
  static int InInterval(const Places& places, flc_file_info_param_t* page);

  std::vector<Disk> mDisks;  // in order of attachment
};

Disk* FlcCache::FindDisk(const std::string& name) {
  for (Disk& disk : mDisks) {
    if (disk.name == name) return &disk;
  }
  return nullptr;
}

Disk& FlcCache::FindOrMakeDisk(const std::string& name) {
  if (Disk* disk = FindDisk(name)) return *disk;
  mDisks.emplace_back();
  mDisks.back().name = name;
  return mDisks.back();
}

int FlcCache::Attach(const std::string& name, const char* directory) {
  Disk* known = FindDisk(name);
  if (known != nullptr && known->path.empty()) {
    // What requests alone had made has no place in the order of attachment.
    mDisks.erase(mDisks.begin() + (known - mDisks.data()));
    known = nullptr;
  }
  Disk& disk = known != nullptr ? *known : FindOrMakeDisk(name);
  disk.path = directory;
  disk.listed = false;
  disk.directories.clear();
  return 0;
}

int FlcCache::Detach(const std::string& name) {
  const Disk* disk = FindDisk(name);
  if (disk == nullptr || disk->path.empty()) return Fail(ENODEV);
  mDisks.erase(mDisks.begin() + (disk - mDisks.data()));
  return 0;
}

int FlcCache::Forget(const std::string& name, int index) {
  Disk* disk = FindDisk(name);
  if (disk == nullptr || disk->path.empty()) return Fail(ENODEV);
  if (index == FLC_ANY_REPOSITORY) disk->listed = false;
  for (auto& [number, directory] : disk->directories) {
    // A directory that is being deleted stays closed: reading it would bring back what is about to go.
    const bool meant = index == FLC_ANY_REPOSITORY || index == number;
    if (meant && directory.state != State::kUnregistered) directory = DataDirectory();
  }
  return 0;
}

int FlcCache::Clear() {
  for (size_t i = mDisks.size(); i > 0; --i) {
    if (mDisks[i - 1].path.empty()) {
      mDisks.erase(mDisks.begin() + static_cast<std::ptrdiff_t>(i - 1));
    } else {
      mDisks[i - 1].listed = false;
      mDisks[i - 1].directories.clear();
    }
  }
  return 0;
}

// Makes the records of a data directory ready in disk.directories. 0, or ENOENT: no such directory; or why it
// can't be read, which is asked again at the next request.
int FlcCache::Open(Disk& disk, int32_t index) {
  const auto found = disk.directories.find(index);
  const bool known = found != disk.directories.end();
  if (known && found->second.state == State::kRead) return 0;
  if (known && found->second.state == State::kUnregistered) return ENOENT;
  if (!disk.path.empty()) {
    FlcDirectory files;
    const int error = FlcReadDirectory(disk.path, index, &files);
    if (error == 0) disk.directories[index] = {State::kRead, std::move(files)};
    if (error != ENOENT) return error;
  }
  if (known && found->second.state == State::kMemoryOnly) return 0;
  if (known) disk.directories.erase(found);
  return ENOENT;
}

int FlcCache::ListDirectories(Disk& disk) {
  if (disk.listed || disk.path.empty()) return 0;
  std::vector<int32_t> indexes;
  const int error = FlcListDirectories(disk.path, &indexes);
  if (error != 0) return error;
  for (const int32_t index : indexes) disk.directories.try_emplace(index);
  disk.listed = true;
  return 0;
}

// Opens what `index` means on one disk and appends it.
void FlcCache::OpenEach(Disk& disk, int32_t index, Places* places) {
  std::vector<int32_t> indexes;
  if (index == FLC_ANY_REPOSITORY) {
    const int error = ListDirectories(disk);
    if (error != 0) places->error = error;
    for (const auto& entry : disk.directories) indexes.push_back(entry.first);
  } else {
    indexes.push_back(index);
  }
  for (const int32_t number : indexes) {
    const int error = Open(disk, number);
    if (error == 0) {
      places->ready.push_back({&disk, number, &disk.directories.at(number).files});
    } else if (error != ENOENT) {
      places->error = error;
    }
  }
}

Places FlcCache::Concerned(const std::string& name, int32_t index) {
  Places places;
  if (index < FLC_ANY_REPOSITORY) {
    places.error = EINVAL;
    return places;
  }
  size_t disks = 0;
  for (Disk& disk : mDisks) {
    if (!name.empty() && disk.name != name) continue;
    ++disks;
    OpenEach(disk, index, &places);
  }
  const bool unknown = disks == 0 || (index != FLC_ANY_REPOSITORY && places.ready.empty());
  if (places.error == 0 && unknown) places.error = ENOENT;
  return places;
}

int FlcCache::Serve(unsigned long request, void* argument) {
  switch (request) {
    case FLC_CLEAR:
      return Clear();
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
  const std::string name(param.diskName, strnlen(param.diskName, FLC_DISK_NAME_SIZE));
  if (request == FLC_FILE_COUNT) {
    const Places places = Concerned(name, param.repository);
    if (places.error != 0) return Fail(places.error);
    size_t count = 0;
    for (const Place& place : places.ready) count += place.files->Count();
    return static_cast<int>(count);
  }
  if (name.empty() || param.repository < 0) return Fail(EINVAL);
  return request == FLC_REGISTER_REPOSITORY ? Register(name, param.repository)
                                            : Unregister(name, param.repository);
}

int FlcCache::ServeFile(unsigned long request, flc_file_info_param_t* param) {
  const std::string name(param->diskName, strnlen(param->diskName, FLC_DISK_NAME_SIZE));
  const bool change = request == FLC_ADD_FILE || request == FLC_REMOVE_FILE;
  if (change && (name.empty() || param->repository < 0 || param->startTime == 0)) return Fail(EINVAL);
  if (request == FLC_ADD_FILE) return Add(name, *param);
  if (request == FLC_REMOVE_FILE) return Remove(name, *param);

  const Places places = Concerned(name, param->repository);
  // Extremes and positions are right only with every directory at hand. Navigation goes on past a disk that
  // can't be read: playback of the others must not end with it.
  const bool needsAll =
      request == FLC_OLDEST_FILE || request == FLC_NEWEST_FILE || request == FLC_FILE_AT_POSITION;
  if (places.error != 0 && (needsAll || places.ready.empty())) return Fail(places.error);
  if (request == FLC_FILE_AT_POSITION) return AtPosition(places, param);
  if (request == FLC_FILES_IN_INTERVAL) return InInterval(places, param);
  return LookUp(request, places, param);
}

int FlcCache::Register(const std::string& name, int32_t index) {
  // Where the disk has the directory, the next request takes its file names instead.
  FindOrMakeDisk(name).directories[index] = {State::kMemoryOnly, FlcDirectory()};
  return 0;
}

int FlcCache::Unregister(const std::string& name, int32_t index) {
  Disk* disk = FindDisk(name);
  if (disk == nullptr) return Fail(ENOENT);
  if (disk->path.empty()) return disk->directories.erase(index) == 1 ? 0 : Fail(ENOENT);
  disk->directories[index] = {State::kUnregistered, FlcDirectory()};
  return 0;
}

int FlcCache::Add(const std::string& name, const flc_file_info_param_t& param) {
  Disk& disk = FindOrMakeDisk(name);
  const int error = Open(disk, param.repository);
  if (error == ENOENT) {
    // Refused after unregister: a list of this file alone would say "empty" once the file has gone.
    if (disk.directories.count(param.repository) != 0) return Fail(ENOENT);
    disk.directories[param.repository].state = State::kMemoryOnly;
  } else if (error != 0) {
    return Fail(error);
  }
  disk.directories[param.repository].files.Add({param.startTime, param.endTime, param.channelMask});
  return 0;
}

int FlcCache::Remove(const std::string& name, const flc_file_info_param_t& param) {
  const Places places = Concerned(name, param.repository);
  if (places.error != 0) return Fail(places.error);
  return places.ready[0].files->Remove(param.startTime) ? 0 : Fail(ENOENT);
}

int FlcCache::LookUp(unsigned long request, const Places& places, flc_file_info_param_t* param) {
  const Place* where = nullptr;
  const FlcFile* best = nullptr;
  for (const Place& place : places.ready) {
    const FlcFile* file = Find(*place.files, request, *param);
    if (file == nullptr || (best != nullptr && !IsBetter(request, *param, *file, *best))) continue;
    where = &place;
    best = file;
  }
  if (best == nullptr) return Fail(ENOENT);
  Answer(*where, *best, param);
  return 0;
}

int FlcCache::AtPosition(const Places& places, flc_file_info_param_t* param) {
  const auto countUpTo = [&places](uint32_t time) {
    size_t count = 0;
    for (const Place& place : places.ready) count += place.files->CountUpTo(time);
    return count;
  };
  if (param->query < 1 || static_cast<size_t>(param->query) > countUpTo(UINT32_MAX)) return Fail(ENOENT);
  size_t position = static_cast<size_t>(param->query);
  if (places.ready.size() == 1) {
    Answer(places.ready[0], places.ready[0].files->At(position - 1), param);
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
  for (const Place& place : places.ready) {
    const size_t count = place.files->CountUpTo(low);
    if (count == place.files->CountUpTo(low - 1) || --position > 0) continue;
    Answer(place, place.files->At(count - 1), param);
    return 0;
  }
  return Fail(ENOENT);
}

int FlcCache::InInterval(const Places& places, flc_file_info_param_t* page) {
  struct Found {
    const Place* place;
    FlcFile file;
  };
  std::vector<Found> found;
  std::vector<FlcFile> files;
  for (const Place& place : places.ready) {
    files.clear();
    place.files->AppendInterval(page->startTime, page->endTime, page->channelMask, FLC_PAGE_SIZE, &files);
    for (const FlcFile& file : files) found.push_back({&place, file});
  }
  std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    return std::tie(a.file.endTime, a.file.startTime) < std::tie(b.file.endTime, b.file.startTime);
  });
  const size_t count = std::min(found.size(), static_cast<size_t>(FLC_PAGE_SIZE));
  for (size_t i = 0; i < count; ++i) Answer(*found[i].place, found[i].file, &page[i]);
  return static_cast<int>(count);
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
  return Guarded([=](FlcCache& cache) { return cache.Attach(diskName, directory); });
}

int FlcDetachDisk(const char* diskName) {
  if (!IsDiskName(diskName)) return Fail(EINVAL);
  return Guarded([=](FlcCache& cache) { return cache.Detach(diskName); });
}

int FlcForget(const char* diskName, int index) {
  if (!IsDiskName(diskName) || index < FLC_ANY_REPOSITORY) return Fail(EINVAL);
  return Guarded([=](FlcCache& cache) { return cache.Forget(diskName, index); });
}
