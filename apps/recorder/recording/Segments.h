// Writes packets into record files, one after the other: when to begin a new one, where it comes from, and what
// becomes of the one before.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "apps/recorder/capture/Input.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/Allocation.h"
#include "apps/recorder/recording/DiskKeeper.h"
#include "apps/recorder/recording/Expiry.h"
#include "apps/recorder/recording/Recovery.h"
#include "apps/recorder/recording/SearchIndex.h"

class ImfWriter;

namespace recorder {

class Segments {
 public:
  struct Options {
    int seconds = 60;  // length of a segment; it ends with the next key frame
    int checkpointSeconds = 2;
    bool waitForDisks = true;  // without a disk, packets are dropped until there is one again
  };
  struct Totals {
    int segments = 0;
    int quarantined = 0;
    int64_t packets = 0;
    int64_t dropped = 0;
    uint64_t bytes = 0;  // of completed segments
    double seconds = 0;
    std::string lastQuarantined;  // path that it had
  };

  Segments(Disks& disks, DiskKeeper& keeper, Expiry& expiry, SearchIndex& index, Recovery& recovery,
           Options options);
  ~Segments();  // what Finish() was not called for is left to the next start

  // Records a packet. False: recording can't go on, a line on standard error has said why; the open segment, if
  // there is one, is still to be finished.
  bool Put(const Sample& sample);
  // To be called now and then while no packets come.
  void Idle();
  // The channel's parameters are not written into new files any more.
  void EndChannel(int channel);
  // Completes the open segment.
  void Finish();

  const Totals& Sum() const { return mTotals; }
  // Packets are dropped because there is no disk to record to.
  bool IsPaused() const { return mPaused; }
  // Of the segment under way; empty between two.
  std::string Path() const { return mWriter ? mPath : ""; }

 private:
  enum class Opened { kYes, kAgain, kNo, kNoDisk };

  bool PutPacket(const Sample& sample);
  bool IsDue(const Sample& sample) const;
  Opened Begin(const Sample& sample);
  uint32_t NextStart(int64_t wanted);
  void KeepHouse();
  bool IsLeading(const ImfPacket& packet) const;
  bool WriteStreams();
  void NoteWritten(const Sample& sample);
  void Complete();
  void GiveBack();
  void Quarantine(const char* what, int error);

  Disks& mDisks;
  DiskKeeper& mKeeper;
  Expiry& mExpiry;
  SearchIndex& mIndex;
  Recovery& mRecovery;
  Allocation mAllocation;
  const Options mOptions;
  Totals mTotals;
  using StreamKey = std::tuple<int, ImfKind, int>;                     // channel, kind, number
  std::map<StreamKey, std::shared_ptr<const ImfStreamInfo>> mStreams;  // of the channels that are open
  std::vector<Sample> mEarlySound;  // waits for the picture that begins a segment

  // The segment under way.
  std::unique_ptr<ImfWriter> mWriter;
  std::string mPath;
  uint32_t mStart = 0;     // seconds since the epoch, as in its name
  int64_t mFirstTime = 0;  // microseconds since the epoch
  int64_t mLastTime = 0;
  int64_t mPackets = 0;
  uint64_t mGroupBegin = 0;     // bytes in use at the last key frame of the leading channel
  uint64_t mLargestGroup = 0;   // bytes from key frame to key frame, in this segment
  uint64_t mLargestBefore = 0;  // and in the one before

  int mFailures = 0;  // in a row
  int mAskings = 0;   // for a disk, since a segment was completed
  bool mPaused = false;
  bool mSaidTooFast = false;
  std::set<int> mSaidTooLarge;      // channels with packets larger than a file
  std::set<std::string> mSaidPool;  // why a pool could not be made
};

}  // namespace recorder
