// What an inspection found, dealt with: what would mislead the file manager is set aside before it sees the
// disk, and what has to stay where it is is taken out of its lists in memory. One line is said of each.
#pragma once

#include <map>
#include <set>
#include <string>

#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/disks/Refusals.h"

class FmgrDataRepository;
class FmgrRepositoryGroup;

namespace recorder {

struct Disk;

// What LeaveOut() is told of a directory that would be removed with something in it that isn't the recorder's.
constexpr char kHoldsForeign[] = "holds what is not the recorder's and can't be moved";

class Vetting {
 public:
  // Makes a pool's directory where there is none any more: without it nothing could be recycled.
  static Refusal MakePool(const Disk& disk);
  // Before a disk is added to the file manager, to record on it: sets aside what is odd, and makes a pool's
  // directory where there is none any more. `now` as for Inspect(). The caller holds the disk's lock. Nothing,
  // or why the disk can't be used as it is.
  Refusal Admit(const Disk& disk, int64_t now);
  // The same to look only: changes nothing on the disk.
  Refusal Look(const Disk& disk, int64_t now);
  // When the disk has been added: takes out of the group's lists what can't be used. Nothing, or why the disk
  // can't be used: the file manager's own listing broke off.
  Refusal Settle(const Disk& disk, FmgrRepositoryGroup& group);

  // While recording: leaves a data directory out from now on. It stays on the disk as it is, nothing in it is
  // recycled, and it is never removed. New data directories get numbers above it. `what` as in OddEntry.
  void LeaveOut(const Disk& disk, FmgrRepositoryGroup& group, const FmgrDataRepository& repository,
                const std::string& what);
  // Passes over a recording that can't be moved: it stays where it is, and the file manager does not come upon
  // it any more. `path` is that of a managed data directory's file.
  void PassOver(const Disk& disk, const std::string& path, const std::string& what);
  bool IsPassedOver(const Disk& disk, const std::string& path) const;
  // Has the cache read a disk's data directory `index` afresh (-1: all of them), but for what is passed over.
  void ForgetCache(const Disk& disk, int index) const;
  // Takes back what was left out and can be used by now; looks once a minute at most.
  void TryAgain(const Disk& disk, FmgrRepositoryGroup& group, int64_t now);
  // What was found when the disk was vetted; null for a disk that wasn't.
  const Inspection* Found(const Disk& disk) const;

 private:
  struct Vetted {
    bool recording = false;
    Inspection found;
    std::map<std::string, std::string> leftOut;  // paths of data directories, and what is odd about them
    std::set<std::string> passedOver;            // paths of recordings
    std::set<std::string> said;                  // those of them that were named
    int64_t tryAgain = 0;                        // seconds of a clock that is never set
  };

  static void CountOnAbove(const Vetted& vetted, FmgrRepositoryGroup& group);

  std::map<std::string, Vetted> mDisks;  // by path
};

}  // namespace recorder
