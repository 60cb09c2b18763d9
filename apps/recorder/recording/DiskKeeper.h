// Keeps the disks of a recording. One that is missing, or does not do what a disk has to, is set aside, named
// once and in `status`, looked at again every minute and whenever something is mounted, and taken back when it
// is well: repaired, and in the order of time with the others. The rest goes on recording meanwhile. One that
// fails in use again before it has taken a whole segment is left alone for longer each time, while there are
// others.
//
// Nothing here is to be called while a record file is open, but SetAside().
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "apps/recorder/disks/DirectoryLock.h"
#include "apps/recorder/disks/DiskState.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/Recovery.h"
#include "apps/recorder/recording/SearchIndex.h"

namespace recorder {

class DiskKeeper {
 public:
  struct Options {
    int retrySeconds = 60;     // between two looks at what isn't used
    bool allDisks = true;      // also those that turn up under the root directory later
    bool clockIsToday = true;  // recordings that start in the future were made by a clock that was ahead
  };

  // `locks` gets, and loses, that of each disk.
  DiskKeeper(Disks& disks, LockSet& locks, SearchIndex& index, Recovery& recovery, Options options);
  ~DiskKeeper();
  DiskKeeper(const DiskKeeper&) = delete;
  DiskKeeper& operator=(const DiskKeeper&) = delete;

  // Takes in the disks that were chosen, as far as they can be used, and says which ones can't.
  void Start();
  // Sets aside what has gone, and looks at what isn't used when that is due.
  void Look();
  // Looks at all that isn't used at once. Whether there is a disk then.
  bool AskAgain();
  // Takes the disk on which `path` lies off the file manager: `what` it could not do, and the system's error
  // (0: none is known).
  void SetAside(const std::string& path, const std::string& what, int error);
  // The disks that are used have no file left and may not recycle one, so the others are needed soon.
  void NoteFull() { mIsFull = true; }
  // A whole segment has been recorded at `path`.
  void NoteRecorded(const std::string& path);

  bool HasDisk() const;
  bool HasUnused() const;
  // Of all disks, those that are used included.
  std::vector<DiskState> States() const;
  // How often disks were taken in.
  int Joins() const { return mJoins; }
  // Says, at most every minute, that there is no disk; `dropped` packets so far.
  void SayNoDisk(int64_t dropped);
  // Told to other processes with the next change of a disk's state, or now.
  void DoubtClock(int64_t since);
  int64_t ClockDoubted() const { return mClockDoubted; }

 private:
  struct Slot {
    DiskState state;
    std::pair<dev_t, ino_t> identity;  // of its directory, while it is used
    int64_t wait = 0;     // seconds that it was left alone for when it failed last; 0: it did well since
    int64_t nextTry = 0;  // seconds of the monotonic clock
  };

  Slot* SlotOf(const std::string& path);
  void TakeOff(Slot& slot, const std::string& what);
  DiskState Vet(const Disk& disk, const std::vector<std::string>& others);
  void FindNew();
  void TakeIn(bool starting, bool evenSick);
  void Order(std::vector<Slot*>* joining);
  void NoteState(Slot& slot, DiskState::Use use, const std::string& what);
  void Publish();
  bool MountsChanged();

  Disks& mDisks;
  LockSet& mLocks;
  SearchIndex& mIndex;
  Recovery& mRecovery;
  const Options mOptions;
  std::vector<Slot> mSlots;
  int mMounts = -1;         // descriptor that tells of changes of what is mounted
  int64_t mNextLook = 0;    // seconds of the monotonic clock
  int64_t mNextNoDisk = 0;  // the same
  bool mIsFull = false;
  int mJoins = 0;
  int64_t mClockDoubted = 0;
};

// Whether the error speaks of the disk rather than of one file on it.
bool IsDiskError(int error);

}  // namespace recorder
