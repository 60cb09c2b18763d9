#include "apps/recorder/capture/WallClockSource.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/ChannelCapture.h"
#include "apps/recorder/capture/PacketMerger.h"

namespace recorder {

namespace {

constexpr int64_t kPatience = kMicros / 10;  // how long anything waits without looking up
constexpr int64_t kStopLimit = 3 * kMicros;  // how long a stuck input may take to stop
constexpr size_t kWaitingLimit = 16 * kMiB;  // bytes of one channel on their way to the disk

void IgnoreWake(int) {}

}  // namespace

// What the threads and the source have in common.
class WallClockSource::Shared : public ChannelCapture::Sink {
 public:
  Shared(const std::vector<std::string>& urls, Options options)
      : mOptions(options), mMerger(urls.size()), mChannels(urls.size()), mHealth(ShownAddresses(urls)) {
    for (size_t i = 0; i < urls.size(); i++) {
      mChannels[i].ended = urls[i].empty();
      mRunning += urls[i].empty() ? 0 : 1;
    }
  }

  void Opened() override {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpened++;
  }
  void Put(Sample sample) override;
  void Put(SourceEvent event) override;
  void WaitUntil(int64_t monotonic) override;
  ChannelHealthBoard& Board() override { return mHealth; }

  int OpenedCount() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mOpened;
  }
  int Running() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mRunning;
  }
  bool HasEnded(size_t channel) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mChannels[channel].ended;
  }
  void Next(SourceEvent* event);
  void WakeWaiting() { mTaken.notify_all(); }

 private:
  struct Channel {
    bool ended = false;
    bool slow = false;           // said already that the disk does not keep up
    bool cameraRefused = false;  // said already that its clock is off
    ChannelDay day;
  };

  void WaitShortly(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, int64_t until);
  void FillTime(Sample* sample);

  const Options mOptions;
  mutable std::mutex mMutex;  // guards what follows, but for the board, which guards itself
  std::condition_variable mArrived;
  std::condition_variable mTaken;
  PacketMerger mMerger;
  MachineClock mClock;
  bool mNewTimeline = false;
  std::vector<Channel> mChannels;
  ChannelHealthBoard mHealth;
  int mOpened = 0;
  int mRunning = 0;
};

// At most kPatience.
void WallClockSource::Shared::WaitShortly(std::condition_variable& condition,
                                          std::unique_lock<std::mutex>& lock, int64_t until) {
  const int64_t left = std::min(until - MonotonicNow(), kPatience);
  if (left > 0) condition.wait_for(lock, std::chrono::microseconds(left));
}

void WallClockSource::Shared::WaitUntil(int64_t monotonic) {
  std::unique_lock<std::mutex> lock(mMutex);
  while (!gStop && MonotonicNow() < monotonic) WaitShortly(mTaken, lock, monotonic);
}

void WallClockSource::Shared::Put(Sample sample) {
  const int number = sample.packet.channel;
  std::unique_lock<std::mutex> lock(mMutex);
  Channel& channel = mChannels[static_cast<size_t>(number)];
  const auto isFull = [&] {
    const size_t waiting = mMerger.WaitingBytes(number);
    return waiting > 0 && waiting + sample.packet.data.size() > kWaitingLimit;
  };
  while (!gStop && isFull()) {
    if (!channel.slow) Complain("channel %d: the disk does not keep up, packets wait", number);
    channel.slow = true;
    WaitShortly(mTaken, lock, MonotonicNow() + kPatience);
  }
  std::optional<int64_t> camera;
  if (sample.camera && (mOptions.trustedCameras >> number & 1) != 0) {
    camera = *sample.camera - mClock.TimeOfDay(0);
  }
  mMerger.PutPacket(std::move(sample), camera);
  if (mMerger.IsCameraRefused(number) && !channel.cameraRefused) {
    channel.cameraRefused = true;
    Complain("channel %d: the camera's clock is too far off to be believed", number);
  }
  mArrived.notify_one();
}

void WallClockSource::Shared::Put(SourceEvent event) {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (event.kind == SourceEvent::kChannelEnded) {
    mChannels[static_cast<size_t>(event.channel)].ended = true;
    mRunning--;
  }
  mMerger.PutEvent(std::move(event));
  mArrived.notify_one();
}

void WallClockSource::Shared::FillTime(Sample* sample) {
  ImfPacket& packet = sample->packet;
  std::optional<int64_t> decodeTime;
  if (packet.kind == ImfKind::kVideo) decodeTime = packet.time - sample->displayOffset;
  packet.time = mChannels[static_cast<size_t>(packet.channel)].day.TimeOfDay(mClock, packet.time, decodeTime);
}

void WallClockSource::Shared::Next(SourceEvent* event) {
  std::unique_lock<std::mutex> lock(mMutex);
  for (int round = 0; round < 2; round++) {
    const ChannelHealthBoard::Moment now = ChannelHealthBoard::Moment::Now();
    mNewTimeline = mClock.Look(now.monotonic, now.wall) || mNewTimeline;
    int64_t again = now.monotonic + kPatience;
    const bool drain = gStop || mRunning == 0;
    if (mMerger.Take(now.monotonic, drain, event, &again)) {
      if (event->kind == SourceEvent::kPacket) {
        FillTime(&event->sample);
        event->sample.newTimeline = std::exchange(mNewTimeline, false);
      }
      mTaken.notify_all();
      return;
    }
    event->kind = mRunning == 0 ? SourceEvent::kFinished : SourceEvent::kNothing;
    if (mRunning == 0 || round > 0) return;
    WaitShortly(mArrived, lock, again);
  }
}

WallClockSource::WallClockSource(const std::vector<std::string>& urls, Options options)
    : mShared(std::make_shared<Shared>(urls, options)) {
  // Without SA_RESTART: it ends a read that libavformat itself cannot interrupt, as of a pipe.
  struct sigaction wake = {};
  wake.sa_handler = IgnoreWake;
  sigaction(SIGUSR1, &wake, nullptr);
  for (size_t i = 0; i < urls.size(); i++) {
    if (urls[i].empty()) {
      mThreads.emplace_back();
      continue;
    }
    mThreads.emplace_back([shared = mShared, url = urls[i], channel = static_cast<int>(i), options] {
      ChannelCapture(url, channel, options.timeout, options.audio, *shared).Run();
    });
  }
}

WallClockSource::~WallClockSource() {
  gStop = true;
  if (mStopped == 0) mStopped = MonotonicNow();
  mShared->WakeWaiting();
  const struct timespec shortly = {0, 20'000'000};
  while (mShared->Running() > 0 && MonotonicNow() < mStopped + kStopLimit + kMicros) {
    WakeThreads();
    nanosleep(&shortly, nullptr);
  }
  for (size_t i = 0; i < mThreads.size(); i++) {
    if (!mThreads[i].joinable()) continue;
    if (mShared->HasEnded(i)) {
      mThreads[i].join();
    } else {
      mThreads[i].detach();
    }
  }
}

// The threads of channels that have not ended exist.
void WallClockSource::WakeThreads() {
  for (size_t i = 0; i < mThreads.size(); i++) {
    if (!mShared->HasEnded(i)) pthread_kill(mThreads[i].native_handle(), SIGUSR1);
  }
}

int WallClockSource::Opened() const { return mShared->OpenedCount(); }

const ChannelHealthBoard& WallClockSource::Health() const { return mShared->Board(); }

void WallClockSource::Next(SourceEvent* event) {
  mShared->Next(event);
  if (event->kind != SourceEvent::kNothing || !gStop) return;
  if (mStopped == 0) mStopped = MonotonicNow();
  WakeThreads();
  if (MonotonicNow() > mStopped + kStopLimit) event->kind = SourceEvent::kFinished;
}

}  // namespace recorder
