// FmgrFileManager: the disks and their rotation. The order of the list is the rotation: its last group is the
// disk being recorded to.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <set>

#include "SystemHelper.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "fmgr/Log.h"
#include "fmgr/OneCall.h"

namespace {

constexpr char kUnit[] = "FmgrFileManager";
// Read by other processes of the recorder.
constexpr char kDiskLink[] = "/tmp/curr_disk";
constexpr char kRepositoryLink[] = "/tmp/curr_rep";

using GroupList = FmgrFileManager::GroupList;
using GroupSet = std::set<const FmgrRepositoryGroup*>;

// The disk whose recordings are oldest by data directory number, of those not tried yet.
GroupList::iterator FindSmallestFirstIndex(GroupList& groups, const GroupSet& tried) {
  auto smallest = groups.end();
  for (auto group = groups.begin(); group != groups.end(); ++group) {
    if (tried.count(*group) != 0) continue;
    if (smallest == groups.end() || (*group)->GetFirstIndex() < (*smallest)->GetFirstIndex()) smallest = group;
  }
  return smallest;
}

}  // namespace

void FmgrFileManager::SetRootDirOfTemp(std::string dir) { mTempRoot = dir; }

int FmgrFileManager::AddRepositoryGroup(std::string mount) {
  GroupList& groups = ActiveGroups();
  const bool isManaged = std::any_of(groups.begin(), groups.end(),
                                     [&](const FmgrRepositoryGroup* each) { return each->Path() == mount; });
  if (isManaged) {
    fmgr::LogError(kUnit, 94, "'%s' is already managed from imf file manager\n", mount.c_str());
    return 0;
  }
  std::unique_ptr<FmgrRepositoryGroup> group(
      new (std::nothrow) FmgrRepositoryGroup(mount, mAltMode != 1 ? 1 : 0, mGroupOption));
  if (group == nullptr) {
    fmgr::LogError(kUnit, 101, "repository group alloc failure!\n");
    return 0;
  }
  group->mTempRoot = mTempRoot;
  group->mParamA = mGroupParamA;
  group->mParamB = mGroupParamB;
  if (!group->DataRepositoryListUp(mount)) {
    group.reset();
    fmgr::LogError(kUnit, 111, "Data repository list-up failure!\n");
    return 0;
  }
  // Ascending by newest data directory, so that recording goes on where it stopped.
  const auto position = std::find_if(groups.begin(), groups.end(), [&](const FmgrRepositoryGroup* each) {
    return each->GetLastIndex() >= group->GetLastIndex();
  });
  groups.insert(position, group.release());
  if (mAltMode == 0) {
    ClearLink();
    SetLink();
  }
  return 1;
}

void FmgrFileManager::RemoveRepositoryGroup(std::string mount) {
  mGroups.remove_if([&](const FmgrRepositoryGroup* group) { return group->Path() == mount; });
}

int FmgrFileManager::CleanUpRepositoryGroup() {
  GroupList& groups = ActiveGroups();
  for (const FmgrRepositoryGroup* group : groups) delete group;
  groups.clear();
  return 1;
}

FmgrRepositoryGroup* FmgrFileManager::CurrentRepositoryGroup() const {
  const GroupList& groups = ActiveGroups();
  return groups.empty() ? nullptr : groups.back();
}

GroupList::iterator FmgrFileManager::FindEmptyGroupIter() {
  return std::find_if(mGroups.begin(), mGroups.end(), [](const FmgrRepositoryGroup* group) {
    return group->GetRecordFileCount() == 0 && group->GetFreeFileCount() >= 0;
  });
}

GroupList::iterator FmgrFileManager::FindNextGroupIterator() { return FindSmallestFirstIndex(mGroups, {}); }

// Where numbers end, the last one is tried again, which the disk that has it refuses.
int FmgrFileManager::NextIndex(const FmgrRepositoryGroup& group) {
  const int last = group.GetLastIndex();
  return last == INT_MAX ? last : last + 1;
}

int FmgrFileManager::ChangeToNextGroup(int force) {
  if (mGroups.empty()) return 0;
  const fmgr::OneCall call;
  const FmgrRepositoryGroup* before = mGroups.back();
  // Data directory numbers go on across disks.
  const int nextIndex = NextIndex(*before);

  if (mGroups.size() == 1) {
    if (before->GetDataRepositoryCount() == 1 || force == 1) return CreateDataRepository(nextIndex);
    return 1;
  }
  const auto empty = FindEmptyGroupIter();
  if (empty != mGroups.end()) {
    mGroups.splice(mGroups.end(), mGroups, empty);
    return CreateDataRepository(nextIndex);
  }
  // A disk whose files can't be counted is passed over, and each disk is tried once: a search that came back to
  // the same bad disk would never end.
  for (GroupSet tried;;) {
    const auto next = FindSmallestFirstIndex(mGroups, tried);
    if (next == mGroups.end()) return 0;
    mGroups.splice(mGroups.end(), mGroups, next);
    const FmgrRepositoryGroup* candidate = mGroups.back();
    if (candidate->GetFreeFileCount() + candidate->GetRecordFileCount() >= 1) break;
    if (candidate == before) return 0;
    tried.insert(candidate);
  }
  if (mGroups.back() == before && force != 1) return 1;
  return CreateDataRepository(nextIndex);
}

int FmgrFileManager::ForceChangeCurrentDisk() {
  if (ActiveGroups().size() < 2) return 0;
  const FmgrRepositoryGroup* current = CurrentRepositoryGroup();
  if (current == nullptr) return 0;
  RemoveRepositoryGroup(current->Path());
  return 1;
}

FmgrRepositoryGroup* FmgrFileManager::GetOldestRepositoryGroup() const {
  const fmgr::OneCall call;
  FmgrRepositoryGroup* oldest = nullptr;
  int oldestStart = 0;
  for (FmgrRepositoryGroup* group : mGroups) {
    const int start = group->GetStartTimeSec();
    if (oldest == nullptr || start < oldestStart) {
      oldest = group;
      oldestStart = start;
    }
  }
  return oldest;
}

int FmgrFileManager::SetLink() {
  const FmgrRepositoryGroup* current = CurrentRepositoryGroup();
  if (current == nullptr || current->mDataRepositories.empty()) return 0;
  const FmgrDataRepository* newest = current->mDataRepositories.back();
  if (newest == nullptr) return 0;
  MakeLink(current->Path().c_str(), kDiskLink);
  return MakeLink(newest->Path().c_str(), kRepositoryLink);
}

int FmgrFileManager::ClearLink() {
  unlink(kDiskLink);
  return unlink(kRepositoryLink);
}

int FmgrFileManager::CheckFileManagerStatus() {
  if (mGroups.empty()) return FMGR_NO_DISK_OR_OWNER;
  if (mOverwrite != 0) return FMGR_DONE;
  return GetFreeFileCount() > 0 ? FMGR_DONE : FMGR_NO_SPACE;
}

unsigned FmgrFileManager::IsWorkDiskOverwrite() {
  if (mGroups.empty()) return 0;
  return mGroups.back()->GetFreeFileCount() == 0 ? 1 : 0;
}

void FmgrFileManager::CheckRepository() {
  for (FmgrRepositoryGroup* group : mGroups) group->WatchDirectory();
}
