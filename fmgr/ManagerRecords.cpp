// FmgrFileManager: where the next record file comes from, and when old recordings go.
#include <ctime>

#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "fmgr/Log.h"
#include "fmgr/OneCall.h"
#include "fmgr/RepositoryOrder.h"

namespace {

constexpr char kUnit[] = "FmgrFileManager";
constexpr int kFirstDataRepository = 1;
constexpr long kSecondsPerHour = 3600;

// By value of ipc_preserve_limit_e. The gap at 10 is deliberate: menus store these values, and 10 has always
// meant "no limit".
constexpr int kPreserveHours[] = {0, 12, 24, 48, 72, 96, 120, 144, 168, 336, 0, 672, 720, 1440, 2160};

}  // namespace

int FmgrFileManager::MakeRecordFile(timeval& time, std::string& path) {
  if (ActiveGroups().empty()) return FMGR_NO_DISK_OR_OWNER;
  const fmgr::OneCall call;
  FmgrRepositoryGroup* group = CurrentRepositoryGroup();
  if (group->GetFreeFileCount() == 0) {
    if (!ChangeToNextGroup(0)) {
      fmgr::LogError(kUnit, 486, "Can't change repository group!\n");
      return FMGR_NO_SPACE;
    }
    group = CurrentRepositoryGroup();
    if (group->GetFreeFileCount() == 0) {
      if (mOverwrite != 1) return FMGR_NO_SPACE;
      if (!group->RemoveOldestRecordFile()) {
        fmgr::LogError(kUnit, 497, "Can't remove oldest record file!\n");
        return FMGR_NO_SPACE;
      }
    }
  }
  // Overwriting can have emptied and removed the disk's last data directory.
  if (group->GetDataRepositoryCount() == 0 && !group->MakeDataRepository(kFirstDataRepository, 1)) {
    return FMGR_CAN_NOT_MAKE;
  }
  if (!group->MakeRecordFile(time, path)) {
    const FmgrRepositoryGroup* oldest = GetOldestRepositoryGroup();
    if (mOverwrite == 0 && oldest != nullptr && oldest->GetFreeFileCount() == 0) return FMGR_NO_SPACE;
    ChangeToNextGroup(0);
    // On the same disk again, not on the one just changed to: deliberate, that one is for the next recording.
    if (!group->MakeRecordFile(time, path)) return FMGR_CAN_NOT_MAKE;
  }
  ClearLink();
  SetLink();
  return FMGR_DONE;
}

void FmgrFileManager::CheckRepositoryChangeCondition(int newTime) {
  const GroupList& groups = ActiveGroups();
  if (groups.empty()) return;
  FmgrRepositoryGroup* current = CurrentRepositoryGroup();
  if (current->mDataRepositories.empty()) return;
  const FmgrDataRepository* newest = current->mDataRepositories.back();
  if (newest == nullptr) return;

  const fmgr::OneCall call;
  fmgr::RepositoryOrder conflicts;
  const int newestStart = newest->GetStartTimeSec();
  if (newestStart > 0) {
    for (const FmgrRepositoryGroup* group : groups) {
      for (FmgrDataRepository* repository : group->mDataRepositories) {
        const int start = repository->GetStartTimeSec();
        if (repository->Index() == newest->Index()) continue;
        if (newestStart < start && 0 < start && start < newTime) conflicts.push_back({start, repository});
      }
    }
  }
  // Every one is logged: support wants to see them all.
  fmgr::SortByStart(conflicts);
  for (const auto& [start, repository] : conflicts) {
    fmgr::LogDebug(
        "current time is conflict with repository %d! new stream time(0x%x) conflict repo start time(0x%x)\n",
        repository->Index(), static_cast<unsigned>(newTime), static_cast<unsigned>(start));
  }
  if (conflicts.empty() && current->IsNeedChangeRepository(newTime) != 1) return;

  if (current->GetFreeFileCount() < 1) {
    ChangeToNextGroup(1);
  } else {
    CreateDataRepository(NextIndex(*current));
  }
}

int FmgrFileManager::CreateDataRepository(int index) {
  FmgrRepositoryGroup* current = CurrentRepositoryGroup();
  return current == nullptr ? 0 : current->MakeDataRepository(index, 1);
}

int FmgrFileManager::MakeCheckInitDataRepository() {
  FmgrRepositoryGroup* current = CurrentRepositoryGroup();
  if (current == nullptr) return FMGR_NO_DISK_OR_OWNER;
  if (current->GetDataRepositoryCount() != 0) return FMGR_DONE;
  if (!current->MakeDataRepository(kFirstDataRepository, 1)) return FMGR_CAN_NOT_MAKE;
  ClearLink();
  SetLink();
  return FMGR_DONE;
}

int FmgrFileManager::RemoveOldestRecordFile() {
  const fmgr::OneCall call;
  FmgrRepositoryGroup* oldest = nullptr;
  int oldestStart = 0;
  // A disk without recordings (start 0) takes part like any other; CheckPreserveTime skips it, deliberately.
  for (FmgrRepositoryGroup* group : ActiveGroups()) {
    const int start = group->GetStartTime();
    if (oldest == nullptr || start < oldestStart) {
      oldest = group;
      oldestStart = start;
    }
  }
  return oldest == nullptr ? 0 : oldest->RemoveOldestRecordFile();
}

int FmgrFileManager::MoveRecordFileToErrorRepository(std::string path, int errorCode) {
  if (mGroups.empty()) return 0;
  const fmgr::OneCall call;
  FmgrDataRepository* owner = fmgr::FindFirstOwner(mGroups, path);
  if (owner == nullptr) return 1;  // not ours, so nothing is left to do
  return owner->MoveRecordFileToErrorRepository(path, errorCode) == 1 ? 1 : 0;
}

int FmgrFileManager::RenameRecordFile(const std::string& path, int endTime, unsigned mask,
                                      std::string& newPath) {
  const fmgr::OneCall call;
  FmgrDataRepository* owner = fmgr::FindFirstOwner(ActiveGroups(), path);
  if (owner == nullptr) return FMGR_NO_DISK_OR_OWNER;
  owner->RenameRecordFile(path, endTime, mask, newPath);
  return FMGR_DONE;
}

void FmgrFileManager::SetPreserveLimitHour(ipc_preserve_limit_e limit) {
  const unsigned value = static_cast<unsigned>(limit);
  mPreserveLimitHour = value < std::size(kPreserveHours) ? kPreserveHours[value] : 0;
}

void FmgrFileManager::CheckPreserveTime(int rounds) {
  const GroupList& groups = ActiveGroups();
  if (groups.empty() || mPreserveLimitHour == 0) return;
  const long limit = static_cast<long>(std::time(nullptr)) - kSecondsPerHour * mPreserveLimitHour;
  const fmgr::OneCall call;
  FmgrRepositoryGroup* candidate = groups.front();
  for (int round = 0; round < rounds; ++round) {
    unsigned candidateStart = static_cast<unsigned>(candidate->GetStartTime());
    for (auto group = std::next(groups.begin()); group != groups.end(); ++group) {
      const unsigned start = static_cast<unsigned>((*group)->GetStartTime());
      if (start != 0 && (candidateStart == 0 || start < candidateStart)) {
        candidate = *group;
        candidateStart = start;
      }
    }
    if (candidate->IsExistTimeOverFile(limit) == 1 && !candidate->RemoveTimeOverRecordFile(limit)) {
      fmgr::LogError(kUnit, 1100, "Timeover file remove failure!!\n");
      return;
    }
  }
}
