#include "fmgr/FmgrRepositoryGroup.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <vector>

#include "Flc.h"
#include "fmgr/FileListing.h"
#include "fmgr/Log.h"
#include "fmgr/RepositoryOrder.h"

namespace {

constexpr char kUnit[] = "FmgrRepositoryGroup";
constexpr unsigned kUseCache = 1;
// A stream may start this many seconds before the end of what is recorded and still follow it: cameras' clocks
// and the recorder's differ by as much.
constexpr int64_t kToleratedOverlap = 5;

}  // namespace

FmgrRepositoryGroup::FmgrRepositoryGroup(std::string path, int recoveryMode, int watchMode)
    : mPath(path), mFreeRepository(path), mErrorRepository(path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return;
  mName = path.substr(slash + 1);
  mRecoveryMode = recoveryMode;
  mWatchMode = watchMode;
  if (mWatchMode == 1) InitWatchDirectory(mPath);
}

FmgrRepositoryGroup::FmgrRepositoryGroup(std::string base, std::string name, int recoveryMode, int watchMode)
    : mPath(base + "/" + name),
      mName(name),
      mFreeRepository(mPath),
      mErrorRepository(mPath),
      mRecoveryMode(recoveryMode),
      mWatchMode(watchMode) {
  if (mWatchMode == 1) InitWatchDirectory(mPath);
}

FmgrRepositoryGroup::~FmgrRepositoryGroup() {
  DeInitWatchDirectory();
  for (FmgrDataRepository* repository : mDataRepositories) delete repository;
}

int FmgrRepositoryGroup::DataRepositoryListUp(std::string path) {
  std::vector<std::string> directories;
  const int error = fmgr::Expand(fmgr::BoundedPattern("%s/%s*", path.c_str(), "data_"), directories);
  if (error != 0) {
    fmgr::LogError(kUnit, 85, "glob failure! (%d)\n", error);
    return 0;
  }
  for (const std::string& directory : directories) {
    const size_t slash = directory.rfind('/');
    if (slash == std::string::npos) return 0;
    std::unique_ptr<FmgrDataRepository> repository(new (std::nothrow) FmgrDataRepository(
        directory.substr(0, slash), directory.substr(slash + 1), &mFreeRepository, &mErrorRepository,
        static_cast<unsigned>(mRecoveryMode)));
    if (repository == nullptr) {
      fmgr::LogError(kUnit, 99, "data repository alloc failure!\n");
      return 0;
    }
    repository->mLinkRoot = mTempRoot;
    repository->mRecoveryObserver = mParamA;
    repository->mSegmentClose = mParamB;
    if (mRecoveryMode != 0) {
      // Kept whatever these find: a directory with a damaged file still has its other recordings.
      repository->CheckNewestFileFixup();
      repository->CheckDbFixup();
    } else if (!repository->RecordFileListUp()) {
      fmgr::LogError(kUnit, 109, "data repository list up failure! (%s)\n", repository->Path().c_str());
      continue;
    }
    // By number, not by name: data_10 comes after data_9. As a rule both rise, and it goes to the end.
    auto position = mDataRepositories.end();
    if (!mDataRepositories.empty() && mDataRepositories.back()->Index() >= repository->Index()) {
      position =
          std::find_if(mDataRepositories.begin(), mDataRepositories.end(),
                       [&](const FmgrDataRepository* entry) { return entry->Index() >= repository->Index(); });
    }
    mDataRepositories.insert(position, repository.release());
  }
  return 1;
}

int FmgrRepositoryGroup::MakeDataRepository(int index, int make) {
  // Numbers end where an int ends; the next one is then refused below like any that is not above the last.
  if (index == -1) index = GetLastIndex() == INT_MAX ? INT_MAX : GetLastIndex() + 1;
  if (!mDataRepositories.empty() && index <= GetLastIndex()) {
    fmgr::LogError(kUnit, 134, "Invalid parameter. last index(%d), new index(%d)\n", GetLastIndex(), index);
    return 0;
  }
  std::unique_ptr<FmgrDataRepository> repository(
      new (std::nothrow) FmgrDataRepository(mPath, index, &mFreeRepository, &mErrorRepository, kUseCache));
  if (repository == nullptr) {
    fmgr::LogError(kUnit, 145, "data repository alloc failure!\n");
    return 0;
  }
  if (make == 1 && !repository->Make()) {
    fmgr::LogError(kUnit, 151, "Can't create data repository '%s'\n", repository->Path().c_str());
    return 0;
  }
  // The segment-close interface is not handed on, deliberately: it serves repairs, and a new directory has
  // nothing to repair.
  repository->mLinkRoot = mTempRoot;
  repository->mRecoveryObserver = mParamA;
  mDataRepositories.push_back(repository.release());
  if (make == 1) FlcRegisterRepository(mName.c_str(), index);
  return 1;
}

int FmgrRepositoryGroup::RemoveOldestDataRepository() {
  if (mDataRepositories.empty()) {
    fmgr::LogError(kUnit, 287, "Can't remove data repository! Data repository is not found");
    return 0;
  }
  FmgrDataRepository* oldest = mDataRepositories.front();
  if (!oldest->Remove()) {
    fmgr::LogError(kUnit, 295, "Can't remove data repository '%s'\n", oldest->Path().c_str());
    return 0;
  }
  fmgr::LogDebug("Oldest repository removed '%s'\n", oldest->Path().c_str());
  delete oldest;
  mDataRepositories.pop_front();
  return 1;
}

int FmgrRepositoryGroup::RemoveRepositoryInstance(int index) {
  if (mDataRepositories.empty()) {
    fmgr::LogError(kUnit, 312, "Can't remove data repository! Data repository is not found");
    return 0;
  }
  const auto entry = std::find_if(mDataRepositories.begin(), mDataRepositories.end(),
                                  [index](const FmgrDataRepository* each) { return each->Index() == index; });
  if (entry == mDataRepositories.end()) return 1;
  delete *entry;
  mDataRepositories.erase(entry);
  return 1;
}

void FmgrRepositoryGroup::GetDataRepository(std::list<FmgrDataRepository*>& out) {
  fmgr::RepositoryOrder order = fmgr::StartsOf(out);
  fmgr::MergeByStart(order, mDataRepositories);
  out.clear();
  for (const fmgr::RepositoryStart& entry : order) out.push_back(entry.repository);
}

int FmgrRepositoryGroup::GetRecordFileCount() const {
  int count = 0;
  for (const FmgrDataRepository* repository : mDataRepositories) count += repository->GetFileCount();
  return count;
}

int FmgrRepositoryGroup::GetDataRepositoryCount() const { return static_cast<int>(mDataRepositories.size()); }

int FmgrRepositoryGroup::GetFreeFileCount() const { return mFreeRepository.GetFileCount(); }

int FmgrRepositoryGroup::GetFileSize() const {
  int size = mFreeRepository.GetFileSize();
  for (auto entry = mDataRepositories.begin(); size == 0 && entry != mDataRepositories.end(); ++entry) {
    size = (*entry)->GetFileSize();
  }
  return size;
}

int FmgrRepositoryGroup::IsNeedChangeRepository(int time) {
  if (mDataRepositories.empty()) return 0;
  int first = INT_MAX;
  int last = INT_MIN;
  if (!mDataRepositories.back()->GetTimeRange(first, last)) return 0;
  if (last - kToleratedOverlap <= time) return 0;
  fmgr::LogDebug("current time is conflict with last repository!! new stream time(0x%x) last time(0x%x)\n",
                 static_cast<unsigned>(time), static_cast<unsigned>(last));
  return 1;
}

int FmgrRepositoryGroup::GetFirstIndex() const {
  return mDataRepositories.empty() ? 0 : mDataRepositories.front()->Index();
}

int FmgrRepositoryGroup::GetLastIndex() const {
  return mDataRepositories.empty() ? 0 : mDataRepositories.back()->Index();
}

// A start of 0 counts only when all are 0, and a negative one (an empty directory) wins.
int FmgrRepositoryGroup::GetStartTime() const {
  int smallest = 0;
  for (const FmgrDataRepository* repository : mDataRepositories) {
    const int start = repository->GetStartTimeSec();
    if (smallest == 0 || smallest > start) smallest = start;
  }
  return smallest;
}

// A first directory without a valid start is never replaced, deliberately: it is the one to be cleared away
// next.
FmgrDataRepository* FmgrRepositoryGroup::GetOldestDataRepository() const {
  FmgrDataRepository* oldest = nullptr;
  int oldestStart = 0;
  for (FmgrDataRepository* repository : mDataRepositories) {
    const int start = repository->GetStartTimeSec();
    if (oldest == nullptr || (start > 0 && start < oldestStart)) {
      oldest = repository;
      oldestStart = start;
    }
  }
  return oldest;
}

int FmgrRepositoryGroup::GetStartTimeSec() const {
  const FmgrDataRepository* oldest = GetOldestDataRepository();
  return oldest == nullptr ? -1 : oldest->GetStartTimeSec();
}

void FmgrRepositoryGroup::CheckRepository() {
  for (FmgrDataRepository* repository : mDataRepositories) repository->WatchDirectory();
}
