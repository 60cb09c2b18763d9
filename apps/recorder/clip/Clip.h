// A span of time of one channel, its pictures and its sound, put together from the record files that hold it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "apps/recorder/clip/ChannelReader.h"
#include "apps/recorder/clip/ClipWriter.h"
#include "apps/recorder/looking/Range.h"
#include "apps/recorder/looking/Recordings.h"
#include "platform/host/imf/ImfCoverage.h"

namespace recorder {

class Clip {
 public:
  // Pictures that are not in the clip; times in microseconds since the epoch.
  struct Missing {
    int64_t from = 0;
    int64_t to = 0;
    std::string reason;
  };
  // One file of the clip: it is in several where the coding changes.
  struct Part {
    std::string path;
    int64_t from = 0;  // of the first picture, microseconds since the epoch
    int64_t to = 0;    // the end of the last
    double seconds = 0;
    int64_t pictures = 0;
    uint64_t bytes = 0;
  };
  enum class Result {
    kDone,
    kNothing,  // nothing of the range is recorded; what is in the file is of no use
    kInterrupted,
    kFailed,  // Error() says why
  };
  // Called now and then with the share that is done, 0 to 1. False ends the work.
  using Progress = std::function<bool(double share)>;

  Clip(const Disks& disks, const Recordings& recordings, int channel, Range range);

  // Where part `number` (2, 3, ...) is to be written. Nothing: nowhere, and the line says why.
  using NextPath = std::function<std::optional<std::string>(int number, std::string* line)>;

  // Writes the clip. It begins with the last key frame at or before the range, and ends with the last picture
  // that is needed to show the range. Pictures or sound with other parameters begin another part; without
  // `next` the clip ends there.
  Result Write(const ClipWriter::Target& target, const Progress& progress, const NextPath& next = nullptr);

  const std::vector<Part>& Parts() const { return mParts; }
  const std::vector<Missing>& AllMissing() const { return mMissing; }
  // A line for each sound that is not in the clip.
  std::vector<std::string> LeftOut() const;
  double MissingShare() const;  // of the range, 0 to 1
  const ClipWriter& Writer() const { return mWriter; }
  const std::string& Error() const { return mError; }

 private:
  struct Begin {
    std::string path;
    ChannelReader::Place place;  // of the key frame; without one, the first key frame in the range will do
    ChannelReader::Place full;   // from where on data are needed: sound may be stored before its pictures
  };
  struct Picture {
    ImfPacket packet;
    int64_t duration;
    int64_t endTime;
  };

  struct Sound {
    ImfPacket packet;
    int64_t streamTime;
  };

  int64_t End() const { return std::max(mRange.until, mLastShown); }
  bool FindBegin(Begin* begin) const;
  bool TakePacket(const ChannelReader& reader, const Begin& begin);
  bool BeginSection(const ChannelReader& reader);
  bool OpenPart(const ChannelReader& reader);
  void ClosePart();
  bool IsSame(const ChannelReader& reader) const;
  void FindSounds(const ChannelReader& reader);
  void TakeSound(const ChannelReader& reader);
  void WriteSound();
  void TakeLastSound(ChannelReader* reader);
  bool WriteHeld();
  void EndSection(const std::string& reason);
  Result Finish(bool atEnd);
  void NotePicture(const ChannelReader& reader);
  void NoteGaps();
  void NoteTail();

  const Disks& mDisks;
  const Recordings& mRecordings;
  const int mChannel;
  const Range mRange;
  ClipWriter::Target mTarget;
  NextPath mNext;
  ClipWriter mWriter;
  std::vector<Part> mParts;
  ClipStreams mStreams;        // of the present part
  std::set<int> mLateSounds;   // that began behind their part's beginning, by number
  bool mIsSoundLate = false;   // one of them has to begin a part yet
  std::deque<Sound> mSound;    // read, but perhaps not needed
  bool mRunning = false;       // a section is under way
  int64_t mSectionTime = 0;    // of its key frame
  std::vector<Picture> mHeld;  // read, but perhaps not needed
  bool mIsBroken = false;      // the last of mMissing ends with the next section
  std::string mBreak;          // why nothing is written at the moment
  bool mSkipped = false;       // pictures of the range lie before the first key frame
  int64_t mFrom = 0;
  int64_t mTo = 0;
  int64_t mLastShown = 0;  // when the last picture that was written is shown
  ImfCoverage mCoverage;
  std::vector<Missing> mMissing;
  std::string mError;
};

}  // namespace recorder
