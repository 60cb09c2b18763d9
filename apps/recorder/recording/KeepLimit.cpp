#include "apps/recorder/recording/KeepLimit.h"

#include <ctime>

#include "apps/recorder/base/Lines.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace recorder {

void RecycleOlderThan(FmgrFileManager& manager, int64_t keepSeconds, int rounds) {
  manager.CheckPreserveTime(rounds);
  if (keepSeconds == 0) return;
  const auto limit = static_cast<long>(std::time(nullptr) - keepSeconds);
  for (int round = 0; round < rounds; ++round) {
    FmgrRepositoryGroup* oldest = nullptr;
    unsigned oldestStart = 0;
    for (FmgrRepositoryGroup* group : manager.mGroups) {
      const auto start = static_cast<unsigned>(group->GetStartTime());
      if (start == 0 || (oldest != nullptr && start >= oldestStart)) continue;
      oldest = group;
      oldestStart = start;
    }
    if (oldest == nullptr || oldest->IsExistTimeOverFile(limit) != 1) return;
    if (oldest->RemoveTimeOverRecordFile(limit) == 1) continue;
    Complain("%s: the oldest recording is older than --keep and cannot be recycled", oldest->Path().c_str());
    return;
  }
}

}  // namespace recorder
