// Recording time is when pictures were taken: by their stream's clock, tied to the machine's time of day; where
// there is none, when they arrived. Files are read at their own pace, as a camera would send them. One thread
// an input; a bounded number of bytes of each waits to be recorded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "apps/recorder/capture/Source.h"

namespace recorder {

class WallClockSource : public Source {
 public:
  struct Options {
    int64_t timeout = 0;          // of an input, microseconds
    bool audio = true;            // record the inputs' sound, too
    uint32_t trustedCameras = 0;  // bit n: what channel n says of the time of day is believed
  };

  // By channel; empty where there is no input.
  WallClockSource(const std::vector<std::string>& urls, Options options);
  // Sets gStop. A thread that the system does not let go of is left behind.
  ~WallClockSource() override;
  void Next(SourceEvent* event) override;
  int Opened() const override;
  const ChannelHealthBoard& Health() const override;

 private:
  class Shared;

  void WakeThreads();

  std::shared_ptr<Shared> mShared;  // outlives the object where a thread is left behind
  std::vector<std::thread> mThreads;
  int64_t mStopped = 0;  // MonotonicNow() when gStop was first seen
};

}  // namespace recorder
