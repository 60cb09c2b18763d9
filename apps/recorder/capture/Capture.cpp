#include "apps/recorder/capture/Capture.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr auto kPatience = std::chrono::milliseconds(100);
constexpr int kStopRounds = 50;                   // of that patience: how long a stuck input may take to stop
constexpr size_t kWaitingLimit = 16 * kMiB;       // bytes of one channel in the queue
constexpr int64_t kClockTolerance = 5 * kMicros;  // a clock set back by less is waited for

int64_t Microseconds(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec * kMicros + now.tv_nsec / 1000;
}

std::string ReasonOf(Input::Result result, const Input& input, const std::string& url) {
  if (result == Input::Result::kStopped) return "";
  return ShownAddress(url) + (result == Input::Result::kEnd ? " has ended" : ": " + input.Error());
}

void IgnoreWake(int) {}

}  // namespace

// --- Stream clock ---

StreamClockSource::StreamClockSource(const std::vector<std::string>& urls, int64_t start) : mStart(start) {
  for (size_t i = 0; i < urls.size(); i++) {
    Channel channel;
    channel.input = std::make_unique<Input>(urls[i], static_cast<int>(i));
    channel.reason = ShownAddress(urls[i]);
    if (channel.input->Open()) {
      mOpened++;
    } else {
      channel.ended = true;
      channel.reason = gStop ? "" : "cannot read " + channel.reason + ": " + channel.input->Error();
      channel.input.reset();
    }
    mChannels.push_back(std::move(channel));
  }
}

void StreamClockSource::Advance(Channel* channel) {
  if (channel->pending || channel->ended) return;
  const Input::Result result = channel->input->Read(&channel->sample);
  channel->pending = result == Input::Result::kPacket;
  if (channel->pending) return;
  channel->ended = true;
  channel->reason = ReasonOf(result, *channel->input, channel->reason);
  channel->input.reset();
}

void StreamClockSource::Next(SourceEvent* event) {
  event->kind = SourceEvent::kFinished;
  if (gStop) return;
  Channel* next = nullptr;
  for (size_t i = 0; i < mChannels.size(); i++) {
    Channel& channel = mChannels[i];
    Advance(&channel);
    if (channel.ended && !channel.reason.empty()) {
      event->kind = SourceEvent::kChannelEnded;
      event->channel = static_cast<int>(i);
      event->reason.swap(channel.reason);
      channel.reason.clear();
      return;
    }
    if (!channel.pending) continue;
    if (next == nullptr || channel.sample.streamTime < next->sample.streamTime) next = &channel;
  }
  if (next == nullptr) return;
  std::swap(event->sample, next->sample);
  next->pending = false;
  event->kind = SourceEvent::kPacket;
  event->sample.packet.time = mStart + event->sample.streamTime + event->sample.displayOffset;
}

// --- Wall clock ---

WallClockSource::WallClockSource(const std::vector<std::string>& urls) : mChannels(urls.size()) {
  // Without SA_RESTART: it ends a read that libavformat itself cannot interrupt, as of a pipe.
  struct sigaction wake = {};
  wake.sa_handler = IgnoreWake;
  sigaction(SIGUSR1, &wake, nullptr);
  mRunning = static_cast<int>(urls.size());
  for (size_t i = 0; i < urls.size(); i++) mChannels[i].url = urls[i];
  for (size_t i = 0; i < urls.size(); i++) {
    mChannels[i].thread = std::thread(&WallClockSource::Capture, this, static_cast<int>(i));
  }
}

WallClockSource::~WallClockSource() {
  gStop = true;
  mTaken.notify_all();
  for (;;) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (mRunning == 0) break;
    WakeThreads();
    mArrived.wait_for(lock, kPatience);
  }
  for (Channel& channel : mChannels) channel.thread.join();
}

int WallClockSource::Opened() const {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mOpened;
}

// Called with the mutex held. The threads of channels that have not ended exist.
void WallClockSource::WakeThreads() {
  for (Channel& channel : mChannels) {
    if (!channel.ended) pthread_kill(channel.thread.native_handle(), SIGUSR1);
  }
}

void WallClockSource::Capture(int channel) {
  Item item;
  item.event.kind = SourceEvent::kChannelEnded;
  item.event.channel = channel;
  item.event.reason = CaptureUntilEnd(channel);
  const std::lock_guard<std::mutex> lock(mMutex);
  mQueue.push_back(std::move(item));
  mChannels[static_cast<size_t>(channel)].ended = true;
  mRunning--;
  mArrived.notify_one();
}

std::string WallClockSource::CaptureUntilEnd(int channel) {
  const std::string& url = mChannels[static_cast<size_t>(channel)].url;
  Input input(url, channel);
  if (!input.Open()) return gStop ? "" : "cannot read " + ShownAddress(url) + ": " + input.Error();
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpened++;
  }
  const int64_t begin = Microseconds(CLOCK_MONOTONIC);
  for (;;) {
    Item item;
    item.event.kind = SourceEvent::kPacket;
    const Input::Result result = input.Read(&item.event.sample);
    if (result != Input::Result::kPacket) return ReasonOf(result, input, url);
    if (input.IsFile()) {
      std::unique_lock<std::mutex> lock(mMutex);
      const int64_t due = begin + item.event.sample.streamTime;
      for (int64_t now; !gStop && (now = Microseconds(CLOCK_MONOTONIC)) < due;) {
        mTaken.wait_for(lock,
                        std::min<std::chrono::microseconds>(kPatience, std::chrono::microseconds(due - now)));
      }
      if (gStop) return "";
    }
    item.wall = Microseconds(CLOCK_REALTIME);
    item.monotonic = Microseconds(CLOCK_MONOTONIC);
    Put(std::move(item));
  }
}

void WallClockSource::Put(Item item) {
  const int number = item.event.sample.packet.channel;
  const size_t bytes = item.event.sample.packet.data.size();
  std::unique_lock<std::mutex> lock(mMutex);
  Channel& channel = mChannels[static_cast<size_t>(number)];
  while (channel.waiting > 0 && channel.waiting + bytes > kWaitingLimit && !gStop) {
    if (!channel.slow) Complain("channel %d: the disk does not keep up, packets wait", number);
    channel.slow = true;
    mTaken.wait_for(lock, kPatience);
  }
  channel.waiting += bytes;
  mQueue.push_back(std::move(item));
  mArrived.notify_one();
}

void WallClockSource::Next(SourceEvent* event) {
  std::unique_lock<std::mutex> lock(mMutex);
  if (mQueue.empty() && mRunning > 0) mArrived.wait_for(lock, kPatience);
  if (!mQueue.empty()) {
    Item item = std::move(mQueue.front());
    mQueue.pop_front();
    *event = std::move(item.event);
    if (event->kind != SourceEvent::kPacket) return;
    mChannels[static_cast<size_t>(event->sample.packet.channel)].waiting -= event->sample.packet.data.size();
    mTaken.notify_all();
    ApplyClock(item, &event->sample);
    return;
  }
  event->kind = mRunning == 0 ? SourceEvent::kFinished : SourceEvent::kNothing;
  if (!gStop || mRunning == 0) return;
  WakeThreads();
  if (++mStopRounds > kStopRounds) event->kind = SourceEvent::kFinished;
}

// The time of day may be set while recording goes on; the monotonic clock tells that from an input that was
// silent. Set back by little, time stands still until the clock has caught up.
void WallClockSource::ApplyClock(const Item& item, Sample* sample) {
  const int64_t shift = item.wall - item.monotonic - mClockOffset;
  sample->newTimeline = mClockKnown && (shift > kClockTolerance || shift < -kClockTolerance);
  if (!mClockKnown || sample->newTimeline || item.wall >= mLastWall) {
    mLastWall = item.wall;
    mClockOffset = item.wall - item.monotonic;
  }
  mClockKnown = true;
  sample->packet.time = mLastWall + sample->displayOffset;
}

}  // namespace recorder
