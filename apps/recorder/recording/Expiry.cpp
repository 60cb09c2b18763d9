#include "apps/recorder/recording/Expiry.h"

#include <sys/timex.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/recording/KeepLimit.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr int64_t kRecent = 24 * 3600;  // seconds: a recorder that was off over night
constexpr int64_t kJump = 3600;         // seconds by which a clock that is only being set right moves at most

int64_t ClockOffset() {
  timespec up = {};
  clock_gettime(CLOCK_BOOTTIME, &up);
  return std::time(nullptr) - up.tv_sec;
}

bool IsSynchronised() {
  timex state = {};
  return adjtimex(&state) != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
}

// Calls use(end) for every completed recording of the disks in use.
template <typename Use>
void ForEachEnd(const Disks& disks, Use use) {
  for (const Disk& disk : disks.All()) {
    const FmgrRepositoryGroup* group = disks.Group(disk);
    if (group == nullptr) continue;
    for (const FmgrDataRepository* repository : group->mDataRepositories) {
      for (const std::string& name : ListDirectory(repository->Path())) {
        RecordName record = {};
        if (ParseRecordName(name, &record) && record.endTime != 0) use(int64_t{record.endTime});
      }
    }
  }
}

}  // namespace

void Expiry::Run(int rounds) {
  if (mOptions.keepSeconds == 0 || !mKeeper.HasDisk()) return;
  if (!IsClockBelievable()) {
    if (!mSaidDoubt) {
      Complain(
          "the clock says %s, which nothing bears out: it is not synchronised, and no earlier recording is "
          "less "
          "than %s old; nothing is recycled for its age until it is (--trust-clock: at once)",
          FormatTime(std::time(nullptr)).c_str(), FormatDuration(kRecent).c_str());
    }
    mSaidDoubt = true;
    return;
  }
  SayWhatGoes();
  RecycleOlderThan(*mDisks.Manager(), mOptions.keepSeconds, rounds);
  mRecovery.Settle();
}

// What is recorded under a clock that can't be believed does not bear it out either, also after the next start.
bool Expiry::IsClockBelievable() {
  const int64_t now = std::time(nullptr);
  if (mOptions.trustClock || IsSynchronised()) {
    mKeeper.DoubtClock(0);
    return true;
  }
  if (mLooked != mKeeper.Joins()) {
    mLooked = mKeeper.Joins();
    mClockOffset = ClockOffset();
    const int64_t doubted = mKeeper.ClockDoubted() > now ? 0 : mKeeper.ClockDoubted();
    const int64_t until = doubted != 0 ? doubted : mStarted;
    int64_t newest = 0;
    ForEachEnd(mDisks, [&](int64_t end) {
      if (end <= until) newest = std::max(newest, end);
    });
    // Without older ones, this clock made all there are, if it makes any.
    mIsRecent = newest == 0 ? mOptions.isWallClock : now - newest <= kRecent;
    mKeeper.DoubtClock(mIsRecent ? 0 : until);
  }
  if (mIsRecent && ClockOffset() > mClockOffset + kJump) {
    mIsRecent = false;
    mKeeper.DoubtClock(now);
    Complain("the clock has jumped forward to %s", FormatTime(now).c_str());
  }
  return mIsRecent;
}

void Expiry::SayWhatGoes() {
  if (mSaidWhatGoes) return;
  mSaidWhatGoes = true;
  const int64_t limit = std::time(nullptr) - mOptions.keepSeconds;
  int64_t all = 0;
  int64_t old = 0;
  ForEachEnd(mDisks, [&](int64_t end) {
    ++all;
    if (end <= limit) ++old;
  });
  if (old * 2 <= all) return;
  Complain(
      "%lld of %lld recordings are older than %s and will be recycled, a few with each segment; "
      "if that is not what is wanted, stop now and look at the clock and at --keep",
      static_cast<long long>(old), static_cast<long long>(all),
      FormatDuration(static_cast<double>(mOptions.keepSeconds)).c_str());
}

}  // namespace recorder
