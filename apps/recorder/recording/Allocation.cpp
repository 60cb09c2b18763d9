#include "apps/recorder/recording/Allocation.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Flc.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/recording/Reserve.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace recorder {

namespace {

// The name that left the pool's list and is still in the pool: the file that was to be moved out. Empty when
// there is none.
std::string LostFromPool(const FmgrRepositoryGroup& group) {
  const auto& known = group.mFreeRepository.files;
  for (const std::string& name : ListDirectory(group.Path() + "/imf_free")) {
    if (HasSuffix(name, ".imf") && std::find(known.begin(), known.end(), name) == known.end()) return name;
  }
  return {};
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
  const std::string name = LostFromPool(*group);
  const std::string from = group->Path() + "/imf_free/" + name;
  if (!name.empty() && RenameToNew(from, path)) return kMade;
  const int error = name.empty() ? 0 : errno;
  if (error == ENOSPC && GiveUpReserve(group->Path()) && RenameToNew(from, path)) return kMade;

  if (const FmgrDataRepository* repository = DirectoryOfFile(*group, path)) {
    FlcRemoveFile(group->mName.c_str(), repository->Index(), start);
  }
  if (IsDiskError(error) || error == ENOSPC || group->GetFreeFileCount() == 0) {
    mKeeper.SetAside(path, "cannot take " + (name.empty() ? "a file out of its pool" : from + " into use"),
                     error);
  } else if (!name.empty()) {
    Complain("%s cannot be taken into use: %s; it is passed over", from.c_str(), std::strerror(error));
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
  mKeeper.SetAside(path, "cannot recycle " + path, error);
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
