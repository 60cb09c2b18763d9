// Where the packets of all inputs come together in the order in which they are recorded.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/recorder/capture/Input.h"

namespace recorder {

struct SourceEvent {
  enum Kind {
    kPacket,        // sample
    kChannelEnded,  // channel; `reason` is a line about it, empty when recording was stopped
    kNothing,       // nothing happened for a while
    kFinished,      // every channel has ended, or recording was stopped and nothing is left
  };
  Kind kind = kNothing;
  Sample sample;
  int channel = 0;
  std::string reason;
};

class Source {
 public:
  virtual ~Source() = default;
  // Waits for a short while at most.
  virtual void Next(SourceEvent* event) = 0;
  // How many inputs could be opened so far.
  virtual int Opened() const = 0;
};

// Recording time is `start` plus the inputs' own time: everything is read in one thread, in order of time, as
// fast as it is taken.
class StreamClockSource : public Source {
 public:
  // `start` in microseconds since the epoch.
  StreamClockSource(const std::vector<std::string>& urls, int64_t start);
  void Next(SourceEvent* event) override;
  int Opened() const override { return mOpened; }

 private:
  struct Channel {
    std::unique_ptr<Input> input;
    bool pending = false;
    bool ended = false;
    Sample sample;
    std::string reason;
  };

  void Advance(Channel* channel);

  const int64_t mStart;
  int mOpened = 0;
  std::vector<Channel> mChannels;
};

// Recording time is the time of day at which a packet arrives; files are read at their own pace, as a camera
// would send them. One thread an input; a bounded number of bytes of each waits to be recorded.
class WallClockSource : public Source {
 public:
  explicit WallClockSource(const std::vector<std::string>& urls);
  ~WallClockSource() override;
  void Next(SourceEvent* event) override;
  int Opened() const override;

 private:
  struct Item {
    SourceEvent event;
    int64_t wall = 0;       // microseconds since the epoch
    int64_t monotonic = 0;  // microseconds since some moment
  };
  struct Channel {
    std::string url;
    std::thread thread;
    size_t waiting = 0;  // bytes in the queue
    bool ended = false;
    bool slow = false;  // said already that the disk does not keep up
  };

  void Capture(int channel);
  std::string CaptureUntilEnd(int channel);
  void Put(Item item);
  void ApplyClock(const Item& item, Sample* sample);
  void WakeThreads();

  mutable std::mutex mMutex;  // guards what follows, but for the threads themselves
  std::condition_variable mArrived;
  std::condition_variable mTaken;
  std::deque<Item> mQueue;
  std::vector<Channel> mChannels;
  int mOpened = 0;
  int mRunning = 0;
  int mStopRounds = 0;

  // Of the consumer only.
  bool mClockKnown = false;
  int64_t mLastWall = 0;
  int64_t mClockOffset = 0;  // time of day minus monotonic time
};

}  // namespace recorder
