// One input: the video and the sound of a file, a camera or a network stream, as libavformat reads it. Packets
// are passed on as they are.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/recorder/capture/Address.h"
#include "apps/recorder/capture/ChannelClock.h"
#include "apps/recorder/capture/StampFiller.h"
#include "platform/host/imf/ImfRecord.h"

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace recorder {

// Set by SIGINT, SIGTERM and SIGHUP: recording comes to an end, and whatever waits stops waiting.
extern std::atomic<bool> gStop;
// Sets it on SIGINT and SIGTERM, and on SIGHUP unless that is ignored; what waits in the kernel stops waiting.
void StopOnSignals();

// Microseconds of CLOCK_MONOTONIC.
int64_t MonotonicNow();

// A packet on its way to the disk.
struct Sample {
  ImfPacket packet;                             // its time is filled in by the source's clock
  std::shared_ptr<const ImfStreamInfo> stream;  // another object when the parameters have changed
  int64_t arrival = 0;                          // MonotonicNow() when it was read
  std::optional<StreamStamps> stamps;           // by the stream's clock, microseconds; a source may have none
  std::optional<int64_t> camera;  // microseconds since the epoch at which the source says it was taken
  int64_t streamTime = 0;     // microseconds since the input's first picture, in decoding order; never falls
  int64_t displayOffset = 0;  // microseconds from decoding to presentation
  bool newTimeline = false;   // the clock was set: what follows belongs into another segment
};

// Used by one thread at a time.
class Input {
 public:
  enum class Result { kPacket, kEnd, kStopped, kFailed };

  // `timeout` in microseconds: how long a network input may take to connect, to show what it sends, and from
  // one picture to the next. With `audio` its sound is read, too.
  Input(std::string url, int channel, int64_t timeout, bool audio);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Finds the best video stream and the sound that belongs to it. False: Error() says why in one line. May wait
  // for the network; gStop ends that.
  bool Open();
  // Fills everything of `sample` but its packet's time. The first one is a picture. kFailed: Error() says why.
  Result Read(Sample* sample);

  const std::string& Error() const { return mError; }
  std::string Address() const { return ShownAddress(mUrl); }
  // A regular file, which gives its packets as fast as it is read.
  bool IsFile() const { return mIsFile; }
  // It failed because the time limit was over.
  bool IsTimedOut() const { return mTimedOut; }
  // It failed in a way that no further attempt can change.
  bool IsHopeless() const { return mHopeless; }

 private:
  struct ComeOut {
    int64_t at;  // MonotonicNow()
    std::optional<int64_t> camera;
  };

  static int InterruptIfDue(void* input);
  bool Fail(int error);
  void ExtendDeadline();
  void DescribeStamps();
  void FindSound();
  Result Fetch();
  void FetchSound();
  bool TakeSound(Sample* sample);
  void FillArrival(Sample* sample);
  void UpdateStream(bool keyFrame);
  void FillStamps(StampFiller::Stamps stamps, Sample* sample);
  void FillStreamTime(Sample* sample);

  const std::string mUrl;
  const int mChannel;
  const bool mIsNetwork;
  const int64_t mTimeout;
  const bool mWithAudio;
  bool mIsFile = false;
  std::string mError;
  bool mTimedOut = false;
  bool mHopeless = false;
  int64_t mDeadline = 0;      // MonotonicNow() at which a network input has been silent for too long
  bool mInterrupted = false;  // for that, or by gStop
  int64_t mFetched = 0;       // MonotonicNow() after the last read
  AVFormatContext* mContext = nullptr;
  AVPacket* mPacket = nullptr;
  int mIndex = -1;
  std::shared_ptr<const ImfStreamInfo> mStream;
  std::vector<uint8_t> mFirstExtraData;  // the container's, which side data in a packet may replace

  bool mHasStamps = true;
  std::optional<StampFiller> mFiller;
  std::deque<Sample> mRead;       // of which stamps are still to be completed
  Result mEnd = Result::kPacket;  // what came after them
  int64_t mFirstArrival = 0;
  size_t mPicturesHeld = 0;      // by libavformat, complete, until it has seen more
  std::deque<ComeOut> mComeOut;  // packets, the last ones

  struct Sound {
    std::shared_ptr<const ImfStreamInfo> stream;
    int64_t next = 0;  // stamp of a packet that has none
  };
  std::map<int, Sound> mSounds;   // by index of the stream
  std::deque<Sample> mSoundRead;  // waits for the first picture

  bool mStarted = false;
  int64_t mOrigin = 0;    // stream time that counts as 0, microseconds
  int64_t mLastTime = 0;  // of the packet before, microseconds since the origin
};

}  // namespace recorder
