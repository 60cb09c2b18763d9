#include "fmgr/FmgrDataRepository.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Flc.h"
#include "ImfFile.h"
#include "RecoveryObserver.h"
#include "SearchDb.h"
#include "fmgr/FileListing.h"
#include "fmgr/FmgrErrorRepository.h"
#include "fmgr/FmgrFreeRepository.h"
#include "fmgr/Log.h"
#include "fmgr/OneCall.h"
#include "fmgr/PathOrder.h"
#include "fmgr/RecordFileName.h"
#include "fmgr/RecordList.h"
#include "fmgr/ShellPath.h"

namespace {

constexpr char kUnit[] = "FmgrDataRepository";
constexpr int kNotify = 1;  // the `mode` that tells the recovery observer

std::unique_ptr<fmgr::RecordList> MakeRecordList(const FmgrDataRepository& owner, std::list<std::string>& names,
                                                 const std::string& groupPath, unsigned useCache) {
  if (useCache != 0) {
    const size_t slash = groupPath.rfind('/');
    return std::make_unique<fmgr::DriverRecordList>(
        owner, slash == std::string::npos ? "" : groupPath.substr(slash + 1));
  }
  return std::make_unique<fmgr::MemoryRecordList>(owner, names);
}

}  // namespace

// --- Lifecycle ---

FmgrDataRepository::FmgrDataRepository(std::string parent, std::string name, FmgrFreeRepository* freeRepository,
                                       FmgrErrorRepository* errorRepository, unsigned useCache)
    : mRecords(MakeRecordList(*this, files, "", 0)) {
  if (freeRepository == nullptr) {
    fmgr::LogError(kUnit, 32, "Invalid parameter. free repository is not initialized\n");
    return;
  }
  if (errorRepository == nullptr) {
    fmgr::LogError(kUnit, 38, "Invalid parameter. error repository is not initialized\n");
    return;
  }
  mFreeRepository = freeRepository;
  mErrorRepository = errorRepository;
  mGroupPath = parent;
  mPath = parent + "/" + name + "/";
  const size_t separator = name.rfind('_');
  if (separator == std::string::npos) {
    fmgr::LogError(kUnit, 51, "invalid data repository name '%s'\n", name.c_str());
    return;
  }
  mIndex = std::atoi(name.c_str() + separator + 1);
  mUseCache = useCache;
  mRecords = MakeRecordList(*this, files, mGroupPath, useCache);
}

FmgrDataRepository::FmgrDataRepository(std::string parent, int index, FmgrFreeRepository* freeRepository,
                                       FmgrErrorRepository* errorRepository, unsigned useCache)
    : mIndex(index),
      mPath(parent + "/" + fmgr::DataDirectoryName(index) + "/"),
      mGroupPath(parent),
      mFreeRepository(freeRepository),
      mErrorRepository(errorRepository),
      mRecords(MakeRecordList(*this, files, mGroupPath, useCache)),
      mUseCache(useCache) {}

FmgrDataRepository::~FmgrDataRepository() { DeInitWatchDirectory(); }

int FmgrDataRepository::Make() {
  if (IsExistDir(mPath)) {
    fmgr::LogError(kUnit, 294, "Can't create data repository! (%s) already exist\n", mPath.c_str());
    return 0;
  }
  if (CreateDir(mPath)) return 1;
  // "pre-allocation" is deliberate: support staff look for this text.
  fmgr::LogError(kUnit, 300, "Can't create pre-allocation repository! (%s)\n", mPath.c_str());
  return 0;
}

unsigned FmgrDataRepository::Remove() {
  const int count = GetFileCount();
  if (count > 0) {
    fmgr::LogError(kUnit, 1025, "Remove data repository failure! '%s' is not empty! file count(%d)\n",
                   mPath.c_str(), count);
    return 0;
  }
  fmgr::OneCall::Forget();
  FlcUnregisterRepository(GetDiskName().c_str(), mIndex);
  const std::string command = "rm -rf " + fmgr::ShellPath(mPath);
  if (std::system(command.c_str()) != 0) {
    // Deliberately not checked: what is left is listed again at the next start.
  }
  return 1;
}

int FmgrDataRepository::RecordFileListUp() {
  std::vector<std::string> paths;
  const int error = fmgr::Expand(fmgr::RecordFilePattern(mPath), paths);
  if (error != 0) {
    fmgr::LogError(kUnit, 244, "glob failure! (%d)\n", error);
    return 0;
  }
  for (const std::string& path : paths) {
    const std::string name = PathToFileName(path);
    mRecords->Add(name);
    if (!IsCompletedFile(name) && mRecoveryObserver != nullptr) FixupRecordFile(name);
  }
  return 1;
}

int FmgrDataRepository::GetFileCount() const { return mRecords->Count(); }

unsigned FmgrDataRepository::IsEmpty() const { return mRecords->IsEmpty() ? 1 : 0; }

int FmgrDataRepository::GetFileSize() const {
  if (IsEmpty()) return 0;
  return FmgrRepository::GetFileSize(FileNameToPath(GetOldestFile(), -1, nullptr));
}

std::string FmgrDataRepository::SearchDbPath() const { return mPath + "search.fdb"; }

unsigned FmgrDataRepository::IsExistFile(const char* path) const {
  struct stat status;
  return stat(path, &status) == 0 && S_ISREG(status.st_mode) ? 1 : 0;
}

// --- Record files in and out ---

// On a 32-bit target the library has 64-bit times, while applications may have been built with 32-bit ones.
// Only the low half of the seconds is used, and that stands in the same place in both kinds of timeval.
static_assert(offsetof(timeval, tv_sec) == 0);
static_assert(sizeof(time_t) == sizeof(long) || __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

int FmgrDataRepository::MakeRecordFile(timeval& time, std::string& newPath) {
  if (mFreeRepository == nullptr || static_cast<const FmgrRepository*>(mFreeRepository)->GetFileCount() < 1)
    return 0;
  const std::string name = fmgr::InProgressName(static_cast<uint32_t>(time.tv_sec));
  const std::string path = mPath + name;
  const std::string freePath = mFreeRepository->Pop();
  fmgr::LogDebug("create record file %s => %s\n", freePath.c_str(), path.c_str());
  // Neither the rename nor what it replaces is checked, deliberately: the application keeps starts apart, and
  // finds out about a failing disk when it opens the file.
  (void)std::rename(freePath.c_str(), path.c_str());
  mRecords->Add(name);
  newPath = path;
  return 1;
}

void FmgrDataRepository::NotifyRemoved(const std::string& path) const {
  const std::string name = PathToFileName(path);
  const fmgr::OutsideCall outside;
  mRecoveryObserver->NotifyFileRemoved(path, static_cast<unsigned>(FileNameToStartTimeSec(name)),
                                       static_cast<unsigned>(FileNameToEndTimeSec(name)),
                                       FileNameToChannelMask(name));
}

unsigned FmgrDataRepository::RemoveRecordFile(const std::string& name, int mode) {
  std::string path = FileNameToPath(name, -1, nullptr);
  if (mode == kNotify && mRecoveryObserver != nullptr) NotifyRemoved(path);

  if (mFreeRepository == nullptr || !mFreeRepository->Push(path)) {
    // The file may have been completed under another name since the caller learnt its name.
    std::string found;
    if (mFreeRepository == nullptr || !FindFileNameByStartTime(FileNameToStartTimeSec(name), found)) {
      fmgr::LogError(kUnit, 394, "Can't remove record file!!\n");
      return 0;
    }
    fmgr::LogDebug("search file by start_time\n");
    fmgr::LogDebug("founded file name is '%s'\n", found.c_str());
    if (!mFreeRepository->Push(found)) {
      fmgr::LogError(kUnit, 389, "Can't remove record file!!\n");
      return 0;
    }
  }
  fmgr::LogDebug("remove record file %s\n", path.c_str());
  return 1;
}

bool FmgrDataRepository::CanRemove(int line) const {
  const int count = GetFileCount();
  if (count != 0 && mFreeRepository != nullptr) return true;
  fmgr::LogError(kUnit, line, "Can't remove oldest record file! repo_path(%s) file_count(%d)\n", mPath.c_str(),
                 count);
  return false;
}

unsigned FmgrDataRepository::RemoveOldestRecordFile() {
  if (!CanRemove(408)) return 0;
  if (!RemoveRecordFile(GetOldestFile(), kNotify)) return 0;
  mRecords->DropOldest();
  return 1;
}

unsigned FmgrDataRepository::RemoveTimeOverRecordFile(long limit) {
  if (!CanRemove(435)) return 0;
  const std::string name = GetOldestFile();
  if (!mRecords->DropOldestBefore(limit)) return 1;
  return RemoveRecordFile(name, kNotify) ? 1 : 0;
}

unsigned FmgrDataRepository::RemoveLatestRecordFile(int mode) {
  if (GetFileCount() == 0 || mFreeRepository == nullptr) return 0;
  if (!RemoveRecordFile(GetNewestFile(), mode)) {
    // "oldest" is deliberate: one text for both ends of the list.
    fmgr::LogError(kUnit, 471, "Can't remove oldest record file!\n");
    return 0;
  }
  mRecords->DropNewest();
  return 1;
}

unsigned FmgrDataRepository::Quarantine(std::string path, int mode, int missingPoolLine, int pushFailedLine) {
  if (mErrorRepository == nullptr) {
    fmgr::LogError(kUnit, missingPoolLine, "Can't move oldest record file to error repository!\n");
    return 0;
  }
  if (mode == kNotify && mRecoveryObserver != nullptr) NotifyRemoved(path);
  if (!mErrorRepository->Push(path)) {
    fmgr::LogError(kUnit, pushFailedLine, "Can't move record file to error repository!!\n");
    return 0;
  }
  // The newest entry, whichever file was moved: deliberate, only the file being recorded is ever quarantined,
  // and it may have gone from the list under another name.
  mRecords->DropNewest();
  return 1;
}

unsigned FmgrDataRepository::MoveRecordFileToErrorRepository(std::string path, int mode) {
  if (GetFileCount() == 0) return 0;
  return Quarantine(path, mode, 1237, 1253);
}

unsigned FmgrDataRepository::MoveLatestRecordFileToErrorRepository(int mode) {
  if (GetFileCount() == 0) return 0;
  return Quarantine(FileNameToPath(GetNewestFile(), -1, nullptr), mode, 500, 517);
}

int FmgrDataRepository::RenameRecordFile(const std::string& path, int endTime, unsigned mask,
                                         std::string& newPath) {
  const std::string oldName = PathToFileName(path);
  const std::string newName = fmgr::CompletedName(static_cast<uint32_t>(FileNameToStartTimeSec(oldName)),
                                                  static_cast<uint32_t>(endTime), mask);
  const std::string oldPath = path;  // the caller may pass one string as both arguments
  newPath = FileNameToPath(newName, -1, nullptr);
  // Deliberately not checked: a file that keeps its unfinished name is repaired at the next start.
  (void)std::rename(oldPath.c_str(), newPath.c_str());
  mRecords->Rename(oldName, newName);
  return 1;
}

// --- Questions ---

std::string FmgrDataRepository::GetOldestFile() const { return mRecords->Oldest(); }

std::string FmgrDataRepository::GetNewestFile() const { return mRecords->Newest(); }

int FmgrDataRepository::GetStartTimeSec() const { return mRecords->IsEmpty() ? -1 : mRecords->OldestStart(); }

int FmgrDataRepository::GetEndTimeSec() const {
  const int count = GetFileCount();
  if (count == 0) return 0;
  std::string newest;
  int end = mRecords->NewestEnd(newest);
  if (end >= 1) return end;
  if (end != 0) {
    fmgr::LogError(kUnit, 139, "Can't get end stream time '%s'\n", newest.c_str());
    return 0;
  }
  // Still being recorded: its header knows better than the file before it.
  end = count < 2 ? 0 : mRecords->EndBeforeNewest(count);
  int growingEnd = 0;
  if (fmgr::ReadEndTime(mPath + newest, growingEnd) && growingEnd >= 1) end = growingEnd;
  return end;
}

bool FmgrDataRepository::GetTimeRange(int& start, int& end) const {
  if (IsEmpty()) return false;
  start = GetStartTimeSec();
  end = GetEndTimeSec();
  return true;
}

bool FmgrDataRepository::IsExistTimeOverFile(long limit) const {
  if (IsEmpty()) return false;
  const int end = mRecords->OldestEnd();
  return end != 0 && limit != 0 && end <= limit;
}

bool FmgrDataRepository::GetFirstFilePath(std::string& path) const {
  if (IsEmpty()) return false;
  path = FileNameToPath(GetOldestFile(), -1, nullptr);
  return true;
}

bool FmgrDataRepository::GetLastFilePath(std::string& path) const {
  if (IsEmpty()) return false;
  path = FileNameToPath(GetNewestFile(), -1, nullptr);
  return true;
}

bool FmgrDataRepository::GetNextFilePath(const std::string& path, std::string& next) const {
  return mRecords->NextFilePath(path, next);
}

bool FmgrDataRepository::GetPrevFilePath(const std::string& path, std::string& prev) const {
  return mRecords->PrevFilePath(path, prev);
}

int FmgrDataRepository::GetFilePath(int time, std::string& path, int mode) const {
  return mRecords->FilePath(time, path, mode, nullptr);
}

int FmgrDataRepository::GetFilePath(int time, std::string& path, int mode,
                                    const fmgr::FileChoice& choice) const {
  return mRecords->FilePath(time, path, mode, &choice);
}

bool FmgrDataRepository::FindFileNameByStartTime(int startTime, std::string& path) const {
  const std::string prefix = mPath + fmgr::StartPrefix(static_cast<uint32_t>(startTime));
  std::vector<std::string> paths;
  const int error = fmgr::Expand(fmgr::BoundedPattern("%s*", prefix.c_str()), paths);
  if (error != 0) fmgr::LogError(kUnit, 356, "glob failure! (%d)\n", error);
  if (paths.empty()) return false;
  path = paths.back();
  return true;
}

int FmgrDataRepository::CollectFileList(std::list<std::string>& paths,
                                        const ImfSearchCondition& condition) const {
  fmgr::PathOrder order(paths);
  return CollectFileList(order, condition);
}

int FmgrDataRepository::CollectFileList(fmgr::PathOrder& paths, const ImfSearchCondition& condition) const {
  constexpr int64_t kMicrosecondsPerSecond = 1000000;
  if (IsEmpty()) return 0;
  return mRecords->Collect(paths, static_cast<int>(condition.startTime / kMicrosecondsPerSecond),
                           static_cast<int>(condition.endTime / kMicrosecondsPerSecond), condition.channelMask);
}

bool FmgrDataRepository::CollectSearchData(TimeSearchChart* chart) const {
  int start = 0;
  int end = 0;
  GetTimeRange(start, end);
  if (start <= 0 || end <= 0) return false;
  if (chart->startTime > end) {
    if (chart->latestEndBefore == 0 || chart->latestEndBefore < end) chart->latestEndBefore = end;
    return false;
  }
  if (chart->endTime < start) {
    if (chart->earliestStartAfter == 0 || chart->earliestStartAfter > start) chart->earliestStartAfter = start;
    return false;
  }
  SearchDb database(mPath, SEARCH_DB_READ);
  database.CollectData(chart);
  return true;
}
