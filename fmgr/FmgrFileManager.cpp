#include "fmgr/FmgrFileManager.h"

#include <cstdint>
#include <new>
#include <vector>

#include "Flc.h"
#include "SystemHelper.h"
#include "fmgr/FileListing.h"
#include "fmgr/FmgrFreeRepository.h"
#include "fmgr/FmgrPreAllocRepository.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "fmgr/Log.h"
#include "fmgr/OneCall.h"

namespace {

constexpr char kUnit[] = "FmgrFileManager";
constexpr int kMiBShift = 20;
constexpr int kKiBPerMiBShift = 10;

}  // namespace

FmgrFileManager* FmgrFileManager::mpFileManager = nullptr;

FmgrFileManager* FmgrFileManager::GetInstance(int option) {
  if (mpFileManager == nullptr) mpFileManager = new (std::nothrow) FmgrFileManager(option);
  return mpFileManager;
}

int FmgrFileManager::ReleaseInstance() {
  if (mpFileManager == nullptr) return 0;
  delete mpFileManager;
  mpFileManager = nullptr;
  return 1;
}

FmgrFileManager::FmgrFileManager(int option) : mGroupOption(option) {}

FmgrFileManager::~FmgrFileManager() {
  CleanUpRepositoryGroup();
  if (mAltMode == 0) FlcClear();
  mAltMode = 0;
}

int FmgrFileManager::BuildRepositoryGroup(std::string mount, unsigned sizeMiB, unsigned count,
                                          ProgressIndicator* indicator) {
  FmgrPreAllocRepository prealloc(mount);
  if (!prealloc.Make(sizeMiB, count, indicator)) {
    fmgr::LogError(kUnit, 154, "Can't create pre-allocation repository! (%s)\n",
                   (mount + "/imf_prealloc/").c_str());
    return 0;
  }
  FmgrFreeRepository free(mount);
  if (!free.Make(prealloc, indicator)) {
    fmgr::LogError(kUnit, 162, "Can't create free repository! (%s)\n", (mount + "/imf_free/").c_str());
    return 0;
  }
  return 1;
}

int FmgrFileManager::RemainRecordSize(const char* mount, int& preallocMiB) const {
  const std::string disk = mount;
  const std::string freePattern = fmgr::BoundedPattern("%s/*.imf", (disk + "/imf_free/").c_str());
  const std::string preallocPattern = fmgr::BoundedPattern("%s/*.imf", (disk + "/imf_prealloc/").c_str());
  const int64_t freeCount = ::GetFileCount(freePattern.c_str());
  const int64_t preallocCount = ::GetFileCount(preallocPattern.c_str());

  // One pre-allocated file stands for the size of all record files of the disk.
  std::vector<std::string> preallocated;
  fmgr::Expand(preallocPattern, preallocated);
  const int64_t sizeKiB = preallocated.empty() ? 0 : ::GetFileSize(preallocated.front().c_str()) / 1024;
  preallocMiB = static_cast<int>(preallocCount * sizeKiB >> kKiBPerMiBShift);
  return static_cast<int>(freeCount * sizeKiB >> kKiBPerMiBShift);
}

int FmgrFileManager::GetRemainSize(int& totalMiB) const {
  const fmgr::OneCall call;
  totalMiB = 0;
  int free = 0;
  for (const FmgrRepositoryGroup* group : mGroups) {
    const int64_t size = static_cast<unsigned>(group->GetFileSize());
    free += static_cast<int>(group->GetFreeFileCount() * size >> kMiBShift);
    // The running sum, not this disk's share: deliberate, menus in the field are calibrated to it.
    totalMiB += free + static_cast<int>(group->GetRecordFileCount() * size >> kMiBShift);
  }
  return free;
}
