#include <cstring>

#include "fmgr/FmgrDataRepository.h"
#include "fmgr/RecordList.h"

namespace fmgr {
namespace {

// A disk whose name is empty can't be asked about: the driver's wrappers refuse null with a line of their own.
class DiskName {
 public:
  explicit DiskName(const FmgrDataRepository& repository) : mName(repository.GetDiskName()) {}
  const char* OrNull() const { return mName.empty() ? nullptr : mName.c_str(); }

 private:
  std::string mName;
};

constexpr char kAnyDisk[] = "";
constexpr int kNextFileQuery = 1;
constexpr int kPreviousFileQuery = -1;

}  // namespace

int DriverRecordList::Count() const { return FlcGetFileCount(DiskName(mOwner).OrNull(), mOwner.Index()); }

// The result is not checked, deliberately: after a failure the zeroed record reads as a file in progress of
// start 0, which no directory has, so whatever is done with it finds nothing.
flc_file_info_param_t DriverRecordList::AskExtreme(int (*request)(const char*, flc_file_info_param_t*)) const {
  flc_file_info_param_t param = FlcFileParam(nullptr, mOwner.Index());
  request(DiskName(mOwner).OrNull(), &param);
  return param;
}

std::string DriverRecordList::Oldest() const {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, AskExtreme(FlcGetOldestFile));
  return name;
}

std::string DriverRecordList::Newest() const {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, AskExtreme(FlcGetNewestFile));
  return name;
}

int DriverRecordList::EndBeforeNewest(int count) const {
  flc_file_info_param_t param = FlcFileParam(nullptr, mOwner.Index(), 0, 0, 0, count - 1);
  return FlcGetFileAtPosition(DiskName(mOwner).OrNull(), &param) < 0 ? 0 : static_cast<int>(param.endTime);
}

void DriverRecordList::Add(const std::string& name) {
  FlcAddFile(mOwner.GetDiskName().c_str(), mOwner.Index(),
             static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(name)),
             static_cast<uint32_t>(FmgrDataRepository::FileNameToEndTimeSec(name)),
             FmgrDataRepository::FileNameToChannelMask(name));
}

void DriverRecordList::Remove(uint32_t start) {
  FlcRemoveFile(mOwner.GetDiskName().c_str(), mOwner.Index(), start);
}

// The driver has no update request.
void DriverRecordList::Rename(const std::string& oldName, const std::string& newName) {
  Remove(static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(oldName)));
  Add(newName);
}

void DriverRecordList::DropOldest() { Remove(AskExtreme(FlcGetOldestFile).startTime); }

void DriverRecordList::DropNewest() { Remove(AskExtreme(FlcGetNewestFile).startTime); }

bool DriverRecordList::DropOldestBefore(long limit) {
  const uint32_t start = AskExtreme(FlcGetOldestFile).startTime;
  if (static_cast<unsigned long>(limit) <= start) return false;
  Remove(start);
  return true;
}

// The answer may lie in another directory or on another disk; its own disk name and index say where.
std::string DriverRecordList::PathOf(const flc_file_info_param_t& answer) const {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, answer);
  const std::string disk(answer.diskName, strnlen(answer.diskName, sizeof answer.diskName));
  return mOwner.FileNameToPath(name, answer.repository, disk.c_str());
}

bool DriverRecordList::NextFilePath(const std::string& path, std::string& next) const {
  const std::string name = FmgrRepository::PathToFileName(path);
  const uint32_t start = static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(name));
  if (!mOwner.IsCompletedFile(name)) {
    // The caller holds the file that was being recorded: it gets the same recording under its present name.
    flc_file_info_param_t same =
        FlcFileParam(nullptr, mOwner.Index(), start, 0, FLC_ALL_CHANNELS, kNextFileQuery);
    if (FlcGetFileByTime(DiskName(mOwner).OrNull(), &same) >= 0) {
      next = PathOf(same);
      return true;
    }
  }
  flc_file_info_param_t following =
      FlcFileParam(kAnyDisk, FLC_ANY_REPOSITORY, start, 0, FLC_ALL_CHANNELS, kNextFileQuery);
  if (FlcGetNextFile(kAnyDisk, &following) < 0) return false;
  next = PathOf(following);
  return true;
}

bool DriverRecordList::PrevFilePath(const std::string& path, std::string& prev) const {
  const std::string name = FmgrRepository::PathToFileName(path);
  flc_file_info_param_t preceding = FlcFileParam(
      kAnyDisk, FLC_ANY_REPOSITORY, static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(name)), 0,
      FLC_ALL_CHANNELS, kPreviousFileQuery);
  if (FlcGetPreviousFile(kAnyDisk, &preceding) < 0) return false;
  prev = PathOf(preceding);
  return true;
}

int DriverRecordList::FilePath(int time, std::string& path, int mode) const {
  flc_file_info_param_t param =
      FlcFileParam(nullptr, mOwner.Index(), static_cast<uint32_t>(time), 0, FLC_ALL_CHANNELS, mode);
  if (FlcGetFileByTime(DiskName(mOwner).OrNull(), &param) >= 0) {
    // Stays in `path` even when the newest file is refused below and the result is 0: deliberate.
    path = PathOf(param);
    if (param.endTime != 0) return static_cast<int>(param.endTime);
  }

  // Nothing found, or the file being recorded, whose real end only its header knows.
  const std::string newest = Newest();
  const int newestStart = FmgrDataRepository::FileNameToStartTimeSec(newest);
  const int newestEnd = FmgrDataRepository::FileNameToEndTimeSec(newest);
  // Opening a file is dear; these two refusals stand whatever its header says.
  if (mode <= 0 && time < newestStart) return 0;
  if (mode >= 1 && newestEnd != 0 && newestEnd <= time) return 0;

  const std::string newestPath = mOwner.Path() + newest;
  int end = 0;
  if (!ReadEndTime(newestPath, end)) return 0;
  // Looking back, a growing recording serves whatever its end is by now.
  const bool accepted = mode >= 1 ? time < end : time >= newestStart;
  if (!accepted) return 0;
  path = newestPath;
  return end;
}

int DriverRecordList::Collect(std::list<std::string>& paths, int from, int to, uint32_t channelMask) const {
  const std::string disk = mOwner.GetDiskName();
  if (disk.empty()) return 0;  // the driver would take it for any disk
  flc_file_info_param_t page[FLC_PAGE_SIZE] = {};
  int count = 0;
  for (;;) {
    // Only these fields are written: from the second page on the query word keeps what the answer left there.
    FlcSetDiskName(page[0].diskName, disk.c_str());
    page[0].repository = mOwner.Index();
    page[0].startTime = static_cast<uint32_t>(from);
    page[0].endTime = static_cast<uint32_t>(to);
    page[0].channelMask = channelMask;
    const int found = FlcGetFilesInInterval(page);
    if (found < 1) return count;
    for (int i = 0; i < found && i < FLC_PAGE_SIZE; ++i) {
      std::string name;
      FmgrDataRepository::FlcFileInfoToFileName(name, page[i]);
      paths.push_back(mOwner.FileNameToPath(name, -1, nullptr));
    }
    count += found;
    const uint32_t lastEnd = page[FLC_PAGE_SIZE - 1].endTime;
    // Nothing ends after the end of time, and going on from the second after it would start over for ever. Only
    // a made-up name has such an end.
    if (found != FLC_PAGE_SIZE || lastEnd == UINT32_MAX) return count;
    from = static_cast<int>(lastEnd + 1);
  }
}

}  // namespace fmgr
