// What the thread of a channel does: connects, reads, and connects again for as long as recording goes on.
#pragma once

#include <cstdint>
#include <string>

#include "apps/recorder/capture/Input.h"
#include "apps/recorder/capture/Source.h"

namespace recorder {

// How long to wait before the next attempt to connect: none at first, then 1, 2, 4 ... 30 seconds, until a
// connection has held.
class RetryPlan {
 public:
  // After an attempt, or a connection that gave pictures for `held` microseconds. Returns microseconds.
  int64_t AfterFailure(int64_t held);

 private:
  int mFailures = 0;
};

class ChannelCapture {
 public:
  // Where packets and events go. Put() may wait for room, Wait() returns early when recording is stopped.
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void Opened() = 0;
    virtual void Put(Sample sample) = 0;
    virtual void Put(SourceEvent event) = 0;
    virtual void WaitUntil(int64_t monotonic) = 0;
    virtual ChannelHealthBoard& Board() = 0;
  };

  ChannelCapture(std::string url, int channel, int64_t timeout, bool audio, Sink& sink)
      : mUrl(std::move(url)), mChannel(channel), mTimeout(timeout), mWithAudio(audio), mSink(sink) {}

  // Until the input has ended, which a network input does only when it can't ever work, or gStop. The last
  // thing put is kChannelEnded.
  void Run();

 private:
  std::string Connect();
  void NoteLost(const std::string& reason);
  void NoteBack();
  void End(const std::string& line, const std::string& reason);
  void Say(SourceEvent::Kind kind, const std::string& line, const std::string& reason = "");

  const std::string mUrl;
  const int mChannel;
  const int64_t mTimeout;
  const bool mWithAudio;
  Sink& mSink;

  bool mEnded = false;
  bool mTimedOut = false;      // the attempt took its time already
  bool mGavePictures = false;  // at any time
  int64_t mHeldSince = 0;      // MonotonicNow() of the present connection's first picture, 0 without one
  int64_t mLostSince = 0;      // MonotonicNow(), 0 while it is not lost
  int64_t mSaidLost = 0;       // MonotonicNow()
};

}  // namespace recorder
