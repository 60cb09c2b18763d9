#include "apps/recorder/recording/Allocation.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Flc.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/recording/Reserve.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace recorder {

namespace {

// The names that left the pool's list and are still in the pool: the file that was to be moved out, and those
// that were passed over before.
std::vector<std::string> LostFromPool(const FmgrRepositoryGroup& group) {
  const std::set<std::string> known(group.mFreeRepository.files.begin(), group.mFreeRepository.files.end());
  std::vector<std::string> lost;
  for (const std::string& name : ListDirectory(group.Path() + "/imf_free")) {
    if (HasSuffix(name, ".imf") && known.count(name) == 0) lost.push_back(name);
  }
  return lost;
}

FmgrDataRepository* DirectoryOfFile(FmgrRepositoryGroup& group, const std::string& path) {
  for (FmgrDataRepository* repository : group.mDataRepositories) {
    if (repository->Path() == DirectoryOf(path)) return repository;
  }
  return nullptr;
}

}  // namespace

Allocation::Result Allocation::Make(uint32_t start, std::string* path) {
  int result = Ask(start, path);
  if (result == FMGR_NO_SPACE && mDisks.Manager()->mOverwrite == 0 &&
      mDisks.Manager()->GetFreeFileCount() == 0) {
    return kFull;
  }
  if (result != FMGR_DONE) {
    mDisks.ForgetCache();  // what it says of the disks may be out of step with them
    result = Ask(start, path);
  }
  if (result != FMGR_DONE) return Blame();
  return Exists(*path) ? kMade : Give(start, *path);
}

int Allocation::Ask(uint32_t start, std::string* path) {
  FmgrFileManager* manager = mDisks.Manager();
  timeval time{};
  time.tv_sec = start;
  manager->CheckRepositoryChangeCondition(static_cast<int>(start));
  const int result = manager->MakeRecordFile(time, *path);
  mRecovery.Settle();
  return result;
}

// The file manager does not look whether the file could be moved out of the pool. It is tried once more, for
// the error; the lists are put right when it fails again.
Allocation::Result Allocation::Give(uint32_t start, const std::string& path) {
  FmgrRepositoryGroup* group = OwnerOf(path);
  if (group == nullptr) return kAgain;
  const std::string pool = group->Path() + "/imf_free/";
  const std::vector<std::string> lost = LostFromPool(*group);
  int error = 0;
  for (const std::string& name : lost) {
    if (RenameToNew(pool + name, path)) return kMade;
    error = errno;
    if (error == ENOSPC && GiveUpReserve(group->Path()) && RenameToNew(pool + name, path)) return kMade;
  }
  const FmgrDataRepository* repository = DirectoryOfFile(*group, path);
  if (repository != nullptr) FlcRemoveFile(group->mName.c_str(), repository->Index(), start);
  const std::string why = repository == nullptr ? std::string() : WhyFixed(repository->Path());
  if (!why.empty()) {
    // Nothing is wrong with the file then.
    if (!lost.empty()) group->mFreeRepository.files.push_back(lost.back());
    mDisks.LeaveOut(*repository, why);
    return kAgain;
  }
  if (IsDiskError(error) || error == ENOSPC || lost.empty()) {
    mKeeper.SetAside(
        path, "cannot take " + (lost.empty() ? "a file out of its pool" : pool + lost.back() + " into use"),
        error);
    return kAgain;
  }
  for (const std::string& name : lost) {
    if (!mPassedOver.insert(pool + name).second) continue;
    Complain("%s%s cannot be taken into use: %s: it is passed over", pool.c_str(), name.c_str(),
             std::strerror(error));
  }
  return kAgain;
}

Allocation::Result Allocation::Blame() {
  const std::string stuck = mRecovery.TakeStuck();
  if (!stuck.empty() && Exists(stuck)) return BlameRecycling(stuck);
  FmgrRepositoryGroup* group = mDisks.Manager()->CurrentRepositoryGroup();  // the one that was to give a file
  return group == nullptr ? kAgain : BlameDirectory(group);
}

// The oldest recording did not get into the pool. Moved once more, for the error.
Allocation::Result Allocation::BlameRecycling(const std::string& path) {
  FmgrRepositoryGroup* group = OwnerOf(path);
  FmgrDataRepository* repository = group == nullptr ? nullptr : DirectoryOfFile(*group, path);
  if (repository == nullptr) return kAgain;
  std::string source = path;
  errno = 0;
  if (group->mFreeRepository.Push(source) == 1) {
    FlcRemoveFile(group->mName.c_str(), repository->Index(),
                  static_cast<uint32_t>(FmgrDataRepository::FileNameToStartTimeSec(NameOf(path))));
    return kAgain;
  }
  const int error = errno;  // the rename's: nothing but a line of text comes after it
  if (error == ENOSPC && GiveUpReserve(group->Path())) return kAgain;
  if (IsDiskError(error) || !WhyFixed(group->Path() + "/imf_free").empty()) {
    mKeeper.SetAside(path, "cannot recycle " + path, error);
    return kAgain;
  }
  // One that can't be moved is no reason to give up the others.
  const std::string why = WhyFixed(repository->Path());
  if (why.empty()) {
    mDisks.PassOver(path, std::string("cannot be recycled: ") + std::strerror(error));
    if (repository->GetFileCount() == 0) mDisks.LeaveOut(*repository, kHoldsForeign);
  } else {
    mDisks.LeaveOut(*repository, why);
  }
  return kAgain;
}

// A new data directory may be what was missing. It is made, and removed, for the error.
Allocation::Result Allocation::BlameDirectory(FmgrRepositoryGroup* group) {
  char name[32];
  int last = 0;
  for (const FmgrRepositoryGroup* each : mDisks.Manager()->mGroups) last = std::max(last, each->GetLastIndex());
  std::snprintf(name, sizeof name, "/data_%08d", last == INT32_MAX ? last : last + 1);
  const std::string directory = group->Path() + name;
  if (mkdir(directory.c_str(), 0755) == 0) {
    rmdir(directory.c_str());
    mKeeper.SetAside(group->Path(), "can neither give nor recycle a file", 0);
    return kAgain;
  }
  const int error = errno;
  if (error == ENOSPC || error == EDQUOT) {
    if (GiveUpReserve(group->Path())) return kAgain;
    // Within a directory that is there recycling takes no room.
    if (group->GetDataRepositoryCount() > 0 && group->GetFreeFileCount() == 0 &&
        mDisks.Manager()->mOverwrite != 0 && group->RemoveOldestRecordFile() == 1) {
      mRecovery.Settle();
      return kAgain;
    }
  }
  mKeeper.SetAside(group->Path(), "cannot make " + directory, error);
  return kAgain;
}

FmgrRepositoryGroup* Allocation::OwnerOf(const std::string& path) const {
  for (FmgrRepositoryGroup* group : mDisks.Manager()->mGroups) {
    if (path.rfind(group->Path() + "/", 0) == 0) return group;
  }
  return nullptr;
}

}  // namespace recorder
