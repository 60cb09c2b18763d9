// Gets a record file for the next segment from the file manager, and finds out who is to blame when there is
// none: the file manager only says that it failed.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/DiskKeeper.h"
#include "apps/recorder/recording/Recovery.h"

namespace recorder {

class Allocation {
 public:
  enum Result {
    kMade,
    kAgain,  // something was set aside or put right: ask again
    kFull,   // every file of every disk holds a recording, and nothing may be overwritten
  };

  Allocation(Disks& disks, DiskKeeper& keeper, Recovery& recovery)
      : mDisks(disks), mKeeper(keeper), mRecovery(recovery) {}

  // A file for a segment that starts at `start`. There is a disk. On kMade `path` is there.
  Result Make(uint32_t start, std::string* path);

 private:
  int Ask(uint32_t start, std::string* path);
  Result Give(uint32_t start, const std::string& path);
  Result Blame();
  Result BlameRecycling(const std::string& path);
  Result BlameDirectory(FmgrRepositoryGroup* group);
  FmgrRepositoryGroup* OwnerOf(const std::string& path) const;

  Disks& mDisks;
  DiskKeeper& mKeeper;
  Recovery& mRecovery;
  std::set<std::string> mPassedOver;  // pool files that were named
};

}  // namespace recorder
