// One video input: a file, a camera or a network stream, as libavformat reads it. Packets are passed on as they
// are.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/imf/ImfRecord.h"

struct AVFormatContext;
struct AVPacket;

namespace recorder {

// Set by SIGINT and SIGTERM: recording comes to an end, and whatever waits stops waiting.
extern std::atomic<bool> gStop;
// Sets it on SIGINT and SIGTERM; what waits in the kernel stops waiting.
void StopOnSignals();

// A packet on its way to the disk.
struct Sample {
  ImfPacket packet;                             // its time is filled in by the source's clock
  std::shared_ptr<const ImfStreamInfo> stream;  // another object when the parameters have changed
  int64_t streamTime = 0;     // microseconds since the input's first picture, in decoding order; never falls
  int64_t displayOffset = 0;  // microseconds from decoding to presentation
  bool newTimeline = false;   // the clock was set: what follows belongs into another segment
};

// For messages: the input without the user name and password, and without the values of parameters that look
// like passwords or keys, that may be in its address.
std::string ShownAddress(const std::string& url);

// Used by one thread at a time.
class Input {
 public:
  enum class Result { kPacket, kEnd, kStopped, kFailed };

  Input(std::string url, int channel);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Finds the best video stream. False: Error() says why in one line. May wait for the network; gStop ends
  // that.
  bool Open();
  // Fills everything of `sample` but its packet's time. kFailed: Error() says why.
  Result Read(Sample* sample);

  const std::string& Error() const { return mError; }
  // A regular file, which gives its packets as fast as it is read.
  bool IsFile() const { return mIsFile; }

 private:
  bool Fail(int error);
  void UpdateStream(bool keyFrame);
  void FillTimes(Sample* sample);

  const std::string mUrl;
  const int mChannel;
  bool mIsFile = false;
  std::string mError;
  AVFormatContext* mContext = nullptr;
  AVPacket* mPacket = nullptr;
  int mIndex = -1;
  std::shared_ptr<const ImfStreamInfo> mStream;
  std::vector<uint8_t> mFirstExtraData;  // the container's, which side data in a packet may replace
  bool mStarted = false;
  int64_t mOrigin = 0;    // stream time that counts as 0, microseconds
  int64_t mLastTime = 0;  // of the packet before, microseconds since the origin
  int64_t mNextDts = 0;   // what the next packet's dts is when it has none, in the stream's time base
};

}  // namespace recorder
