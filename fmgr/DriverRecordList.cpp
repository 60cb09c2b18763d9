#include <cstring>

#include "fmgr/FmgrDataRepository.h"
#include "fmgr/OneCall.h"
#include "fmgr/PathOrder.h"
#include "fmgr/RecordFileName.h"
#include "fmgr/RecordList.h"

namespace fmgr {
namespace {

constexpr char kAnyDisk[] = "";
constexpr int kNextFileQuery = 1;
constexpr int kPreviousFileQuery = -1;

}  // namespace

const char* DriverRecordList::Disk() const {
  if (!mDisk.empty()) return mDisk.c_str();
  (void)mOwner.GetDiskName();  // tells what is wrong with the path
  return nullptr;
}

DriverRecordList::Answers* DriverRecordList::Known() const {
  const uint64_t call = OneCall::Current();
  if (call == 0) return nullptr;
  if (call != mKnown.call) {
    mKnown.call = call;
    mKnown.hasCount = mKnown.hasOldest = mKnown.hasNewest = false;
  }
  return &mKnown;
}

int DriverRecordList::Count() const {
  Answers* known = Known();
  if (known != nullptr && known->hasCount) return known->count;
  const int count = FlcGetFileCount(Disk(), mOwner.Index());
  if (known != nullptr && count >= 0) {
    known->count = count;
    known->hasCount = true;
  }
  return count;
}

// The callers don't check the results, deliberately: after a failure the zeroed record reads as a file in
// progress of start 0, which no directory has, so whatever is done with it finds nothing.
int DriverRecordList::AskOldest(flc_file_info_param_t& file) const {
  file = FlcFileParam(nullptr, mOwner.Index());
  return FlcGetOldestFile(Disk(), &file);
}

int DriverRecordList::AskNewest(flc_file_info_param_t& file) const {
  file = FlcFileParam(nullptr, mOwner.Index());
  return FlcGetNewestFile(Disk(), &file);
}

flc_file_info_param_t DriverRecordList::KnownOldest() const {
  Answers* known = Known();
  if (known != nullptr && known->hasOldest) return known->oldest;
  flc_file_info_param_t file;
  const bool isAnswered = AskOldest(file) >= 0;
  if (known != nullptr && isAnswered) {
    known->oldest = file;
    known->hasOldest = true;
  }
  return file;
}

flc_file_info_param_t DriverRecordList::KnownNewest() const {
  Answers* known = Known();
  if (known != nullptr && known->hasNewest) return known->newest;
  flc_file_info_param_t file;
  const bool isAnswered = AskNewest(file) >= 0;
  if (known != nullptr && isAnswered) {
    known->newest = file;
    known->hasNewest = true;
  }
  return file;
}

std::string DriverRecordList::Oldest() const {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, KnownOldest());
  return name;
}

std::string DriverRecordList::Newest() const {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, KnownNewest());
  return name;
}

// The same numbers that the names would be read as.
int DriverRecordList::OldestStart() const { return static_cast<int>(KnownOldest().startTime); }

int DriverRecordList::OldestEnd() const { return static_cast<int>(KnownOldest().endTime); }

int DriverRecordList::NewestEnd(std::string& name) const {
  const flc_file_info_param_t newest = KnownNewest();
  const int end = static_cast<int>(newest.endTime);
  if (end < 1) FmgrDataRepository::FlcFileInfoToFileName(name, newest);
  return end;
}

int DriverRecordList::EndBeforeNewest(int count) const {
  flc_file_info_param_t param = FlcFileParam(nullptr, mOwner.Index(), 0, 0, 0, count - 1);
  return FlcGetFileAtPosition(Disk(), &param) < 0 ? 0 : static_cast<int>(param.endTime);
}

void DriverRecordList::Add(const std::string& name) {
  const char* disk = Disk();
  OneCall::Forget();
  FlcAddFile(disk == nullptr ? "" : disk, mOwner.Index(),
             static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(name)),
             static_cast<uint32_t>(FmgrDataRepository::FileNameToEndTimeSec(name)),
             FmgrDataRepository::FileNameToChannelMask(name));
}

void DriverRecordList::Remove(uint32_t start) {
  const char* disk = Disk();
  OneCall::Forget();
  FlcRemoveFile(disk == nullptr ? "" : disk, mOwner.Index(), start);
}

// The driver has no update request.
void DriverRecordList::Rename(const std::string& oldName, const std::string& newName) {
  Remove(static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(oldName)));
  Add(newName);
}

void DriverRecordList::DropOldest() {
  flc_file_info_param_t oldest;
  AskOldest(oldest);
  Remove(oldest.startTime);
}

void DriverRecordList::DropNewest() {
  flc_file_info_param_t newest;
  AskNewest(newest);
  Remove(newest.startTime);
}

bool DriverRecordList::DropOldestBefore(long limit) {
  flc_file_info_param_t oldest;
  AskOldest(oldest);
  if (static_cast<unsigned long>(limit) <= oldest.startTime) return false;
  Remove(oldest.startTime);
  return true;
}

// The answer may lie in another directory or on another disk; its own disk name and index say where.
void DriverRecordList::SetPath(std::string& path, const flc_file_info_param_t& answer) const {
  char disk[FLC_DISK_NAME_SIZE + 1] = {};
  std::memcpy(disk, answer.diskName, FLC_DISK_NAME_SIZE);
  path.clear();
  mOwner.AppendPath(path, RecordName(answer.startTime, answer.endTime, answer.channelMask).Text(),
                    answer.repository, disk);
}

bool DriverRecordList::NextFilePath(const std::string& path, std::string& next) const {
  const std::string name = FmgrRepository::PathToFileName(path);
  const uint32_t start = static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(name));
  if (!mOwner.IsCompletedFile(name)) {
    // The caller holds the file that was being recorded: it gets the same recording under its present name.
    flc_file_info_param_t same =
        FlcFileParam(nullptr, mOwner.Index(), start, 0, FLC_ALL_CHANNELS, kNextFileQuery);
    if (FlcGetFileByTime(Disk(), &same) >= 0) {
      SetPath(next, same);
      return true;
    }
  }
  flc_file_info_param_t following =
      FlcFileParam(kAnyDisk, FLC_ANY_REPOSITORY, start, 0, FLC_ALL_CHANNELS, kNextFileQuery);
  if (FlcGetNextFile(kAnyDisk, &following) < 0) return false;
  SetPath(next, following);
  return true;
}

bool DriverRecordList::PrevFilePath(const std::string& path, std::string& prev) const {
  const std::string name = FmgrRepository::PathToFileName(path);
  flc_file_info_param_t preceding = FlcFileParam(
      kAnyDisk, FLC_ANY_REPOSITORY, static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(name)), 0,
      FLC_ALL_CHANNELS, kPreviousFileQuery);
  if (FlcGetPreviousFile(kAnyDisk, &preceding) < 0) return false;
  SetPath(prev, preceding);
  return true;
}

int DriverRecordList::FilePath(int time, std::string& path, int mode, const FileChoice* choice) const {
  flc_file_info_param_t param =
      FlcFileParam(nullptr, mOwner.Index(), static_cast<uint32_t>(time), 0, FLC_ALL_CHANNELS, mode);
  if (FlcGetFileByTime(Disk(), &param) >= 0) {
    const int end = static_cast<int>(param.endTime);
    if (end != 0 && choice != nullptr && !choice->Takes(end)) return end;
    // Stays in `path` even when the newest file is refused below and the result is 0: deliberate.
    SetPath(path, param);
    if (end != 0) return end;
  }

  // Nothing found, or the file being recorded, whose real end only its header knows.
  const flc_file_info_param_t newest = KnownNewest();
  const int newestStart = static_cast<int>(newest.startTime);
  const int newestEnd = static_cast<int>(newest.endTime);
  // Opening a file is dear. The first refusal stands whatever its header says; by the second, deliberately, a
  // completed name's end goes for its header's.
  if (mode <= 0 && time < newestStart) return 0;
  if (mode >= 1 && newestEnd != 0 && newestEnd <= time) return 0;

  std::string newestPath;
  mOwner.AppendPath(newestPath, RecordName(newest.startTime, newest.endTime, newest.channelMask).Text(), -1,
                    nullptr);
  int end = 0;
  if (!ReadEndTime(newestPath, end)) return 0;
  // Looking back, a growing recording serves whatever its end is by now.
  const bool accepted = mode >= 1 ? time < end : time >= newestStart;
  if (!accepted) return 0;
  path = newestPath;
  return end;
}

int DriverRecordList::Collect(PathOrder& paths, int from, int to, uint32_t channelMask) const {
  const char* disk = Disk();
  if (disk == nullptr) return 0;  // the driver would take it for any disk
  flc_file_info_param_t page[FLC_PAGE_SIZE] = {};
  int count = 0;
  for (;;) {
    // Only these fields are written: from the second page on the query word keeps what the answer left there.
    FlcSetDiskName(page[0].diskName, disk);
    page[0].repository = mOwner.Index();
    page[0].startTime = static_cast<uint32_t>(from);
    page[0].endTime = static_cast<uint32_t>(to);
    page[0].channelMask = channelMask;
    const int found = FlcGetFilesInInterval(page);
    if (found < 1) return count;
    for (int i = 0; i < found && i < FLC_PAGE_SIZE; ++i) {
      mOwner.AppendPath(paths.Append(page[i].startTime),
                        RecordName(page[i].startTime, page[i].endTime, page[i].channelMask).Text(), -1,
                        nullptr);
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
