// FmgrRepositoryGroup: making and recycling record files of one disk.
#include "fmgr/FmgrRepositoryGroup.h"
#include "fmgr/Log.h"

namespace {
constexpr char kUnit[] = "FmgrRepositoryGroup";
}

// Whether something may be overwritten to get a free file is the caller's decision, never the group's.
int FmgrRepositoryGroup::MakeRecordFile(timeval& start, std::string& path) {
  const int freeCount = GetFreeFileCount();
  if (freeCount < 1) {
    fmgr::LogError(kUnit, 169, "Can't make record file, current free file count is %d\n", freeCount);
    return 0;
  }
  if (mDataRepositories.empty()) {
    fmgr::LogError(kUnit, 175, "Can't make record file, current data repository count is %d\n",
                   GetDataRepositoryCount());
    return 0;
  }
  return mDataRepositories.back()->MakeRecordFile(start, path);
}

int FmgrRepositoryGroup::RemoveOldestRecordFile() {
  constexpr char kNotFound[] = "Can't remove oldest record file! data repository is not found\n";
  if (mDataRepositories.empty()) {
    fmgr::LogError(kUnit, 186, kNotFound);
    return 0;
  }
  // A count that fails (-1) is not "empty": such a directory must not be removed.
  while (mDataRepositories.front()->GetFileCount() == 0) {
    if (!RemoveOldestDataRepository()) {
      fmgr::LogError(kUnit, 195, "Can't remove oldest data repository!\n");
      return 0;
    }
    if (mDataRepositories.empty()) {
      fmgr::LogError(kUnit, 201, kNotFound);
      return 0;
    }
  }
  FmgrDataRepository* oldest = mDataRepositories.front();
  if (!oldest->RemoveOldestRecordFile()) return 0;
  return oldest->GetFileCount() != 0 ? 1 : RemoveOldestDataRepository();
}

int FmgrRepositoryGroup::RemoveTimeOverRecordFile(long limit) {
  constexpr char kNotFound[] = "Can't remove timeover record file! data repository is not found\n";
  if (mDataRepositories.empty()) {
    fmgr::LogError(kUnit, 223, kNotFound);
    return 0;
  }
  // At most one empty directory is cleared away here, deliberately: this runs beside recording, once per round.
  if (mDataRepositories.front()->GetFileCount() == 0) {
    if (!RemoveOldestDataRepository()) {
      fmgr::LogError(kUnit, 232, "Can't remove oldest data repository!\n");
      return 0;
    }
    if (mDataRepositories.empty()) {
      fmgr::LogError(kUnit, 238, kNotFound);
      return 0;
    }
  }
  FmgrDataRepository* oldest = mDataRepositories.front();
  if (!oldest->RemoveTimeOverRecordFile(limit)) return 0;
  return oldest->GetFileCount() != 0 ? 1 : RemoveOldestDataRepository();
}

int FmgrRepositoryGroup::IsExistTimeOverFile(long limit) {
  while (!mDataRepositories.empty()) {
    FmgrDataRepository* oldest = GetOldestDataRepository();
    if (oldest->GetFileCount() != 0) return oldest->IsExistTimeOverFile(limit) ? 1 : 0;
    fmgr::LogDebug("Empty repository founded. remove repository id %d\n", oldest->Index());
    // Removes the first one, which need not be the one just found.
    if (!RemoveOldestDataRepository()) {
      fmgr::LogError(kUnit, 270, "Can't remove oldest data repository!\n");
      return 0;
    }
  }
  return 0;
}

int FmgrRepositoryGroup::GetTimeRange(int& start, int& end) const {
  start = 0;
  end = 0;
  int earliest = 0;
  int latest = 0;
  for (const FmgrDataRepository* repository : mDataRepositories) {
    const int candidate = repository->GetStartTimeSec();
    if (candidate > 0 && (earliest == 0 || candidate < earliest)) earliest = candidate;
  }
  if (earliest == 0) return 0;
  for (const FmgrDataRepository* repository : mDataRepositories) {
    const int candidate = repository->GetEndTimeSec();
    if (candidate != 0 && (latest == 0 || candidate > latest)) latest = candidate;
  }
  if (latest == 0) return 0;
  start = earliest;
  end = latest;
  return 1;
}
