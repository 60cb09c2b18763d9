// A span of time of one channel, put together from the record files that hold it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
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
  enum class Result {
    kDone,
    kNothing,  // nothing of the range is recorded; what is in the file is of no use
    kInterrupted,
    kFailed,  // Error() says why
  };
  // Called now and then with the share that is done, 0 to 1. False ends the work.
  using Progress = std::function<bool(double share)>;

  Clip(const Disks& disks, const Recordings& recordings, int channel, Range range);

  // Writes the clip to the file at `path`. It begins with the last key frame at or before the range, and ends
  // with the last picture that is needed to show the range.
  Result Write(const std::string& path, const Progress& progress);

  int64_t From() const { return mFrom; }  // of the first picture, microseconds since the epoch
  int64_t To() const { return mTo; }      // the end of the last
  const std::vector<Missing>& AllMissing() const { return mMissing; }
  const ClipWriter& Writer() const { return mWriter; }
  const std::string& Error() const { return mError; }

 private:
  struct Begin {
    std::string path;
    ChannelReader::Place place;  // of the key frame; without one, the first key frame in the range will do
  };
  struct Picture {
    ImfPacket packet;
    int64_t duration;
    int64_t endTime;
  };

  int64_t End() const { return std::max(mRange.until, mLastShown); }
  bool FindBegin(Begin* begin) const;
  bool TakePacket(const ChannelReader& reader, const Begin& begin);
  bool BeginSection(const ChannelReader& reader);
  bool WriteHeld();
  void EndSection(const std::string& reason);
  Result Finish(bool atEnd);
  void NotePicture(const ChannelReader& reader);
  void NoteGaps();

  const Disks& mDisks;
  const Recordings& mRecordings;
  const int mChannel;
  const Range mRange;
  std::string mPath;
  ClipWriter mWriter;
  ImfStreamInfo mStream;
  bool mRunning = false;       // a section is under way
  int64_t mSectionTime = 0;    // of its key frame
  std::vector<Picture> mHeld;  // read, but perhaps not needed
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
