// Hears what the file manager repairs and takes away, says so in one line each, and keeps the search databases
// in step with it.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ImfFile.h"
#include "RecoveryObserver.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/Completion.h"
#include "apps/recorder/recording/SearchIndex.h"

namespace recorder {

class Recovery : public RecoveryObserver, public ImfSegmentCloseInterface {
 public:
  explicit Recovery(SearchIndex& index) : mIndex(index) {}

  // Around the start-up, since the file manager says nothing of a file that it gives back to the pool, nor
  // whether a search database could be rebuilt: notes what needs repair, and reports what became of it.
  void NoteState(const std::vector<Disk>& joining);
  // The recordings that the file manager left unfinished are completed now, as far as they can be.
  void ReportState(Disks& disks, const std::vector<Disk>& joined);
  // Recordings that still have no final name.
  Completion& Unfinished() { return mCompletion; }

  // The files removed until further notice go into quarantine, which the caller reports, or are recycled.
  void SetQuarantining(bool quarantining) { mQuarantining = quarantining; }
  // To be called after every call of the file manager that may recycle: only then is it known whether the file
  // that was to leave has left. Until then nothing is said, and its row stays in the search database.
  void Settle();
  // Path of the recording that was to be recycled last and stayed, as Settle() found; empty when none did since
  // the last call.
  std::string TakeStuck() { return std::exchange(mStuck, {}); }
  int Recycled() const { return mRecycled; }
  // Recordings that were cut off and are complete now.
  int Repaired() const { return mRepaired; }

  void NotifyStage(int stage, int active) override;
  void NotifyFileFixed(ImfFile& file, const std::string& newName, unsigned videoChannelMask) override;
  void NotifyFileRemoved(const std::string& path, unsigned start, unsigned end, unsigned mask) override;
  void OnSegmentClosed(ImfFile& file) override;

 private:
  SearchIndex& mIndex;
  Completion mCompletion{mIndex};
  struct Leaving {
    std::string path;
    uint32_t start = 0;
    uint32_t end = 0;
    uint32_t mask = 0;
  };

  bool mQuarantining = false;
  Leaving mLeaving;  // no path: none
  std::string mStuck;
  int mRecycled = 0;
  int mRepaired = 0;
  std::vector<std::string> mDamagedDbs;  // directories whose search database is to be rebuilt
  std::set<std::string> mFixed;          // directory and start time of what was repaired
};

}  // namespace recorder
