// Recycles recordings that are older than they may get, a few a segment. Their age is reckoned by the clock,
// and a clock that is ahead would take everything, so it acts only when the clock can be believed.
#pragma once

#include <cstdint>
#include <ctime>

#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/DiskKeeper.h"
#include "apps/recorder/recording/Recovery.h"

namespace recorder {

class Expiry {
 public:
  struct Options {
    int64_t keepSeconds = 0;  // 0: no limit
    bool trustClock = false;
    bool isWallClock = true;  // recordings are made at this machine's time of day
  };

  Expiry(Disks& disks, DiskKeeper& keeper, Recovery& recovery, Options options)
      : mDisks(disks), mKeeper(keeper), mRecovery(recovery), mOptions(options) {}

  // Recycles at most `rounds` recordings. To be called while no record file is open.
  void Run(int rounds);

 private:
  bool IsClockBelievable();
  void SayWhatGoes();

  Disks& mDisks;
  DiskKeeper& mKeeper;
  Recovery& mRecovery;
  const Options mOptions;
  const int64_t mStarted = std::time(nullptr);
  int mLooked = 0;           // at the recordings that were there at the start, after so many joins of disks
  bool mIsRecent = false;    // the newest of them
  int64_t mClockOffset = 0;  // time of day minus time since the machine was started, when it was looked
  bool mSaidDoubt = false;
  bool mSaidWhatGoes = false;
};

}  // namespace recorder
