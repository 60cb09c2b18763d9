#include "apps/recorder/recording/HealthReporter.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "apps/recorder/base/ExitStatus.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/Input.h"

namespace recorder {

namespace {

constexpr int64_t kEvery = kMicros;
constexpr int64_t kWatchEvery = kMicros / 4;
constexpr int64_t kStopLimit = 4500000;      // of stopping, microseconds
constexpr int64_t kLoopLimit = 5 * kMicros;  // a round of recording that takes longer is stuck
constexpr int64_t kMargin = 10 * kMicros;

ChannelHealthBoard::Moment Now() { return ChannelHealthBoard::Moment::Now(); }

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  return gethostname(name, HOST_NAME_MAX) == 0 ? name : "";
}

Health::Channel Describe(int number, const ChannelHealth& health, const ChannelNames& names) {
  Health::Channel channel;
  channel.channel = number;
  if (const auto name = names.find(number); name != names.end()) channel.name = name->second;
  channel.address = health.address;
  channel.state = NameOf(health.state);
  channel.since = health.since;
  channel.reason = health.reason;
  channel.lastPicture = health.lastPicture;
  channel.picturesPerSecond = health.picturesPerSecond;
  channel.bytesPerSecond = health.bytesPerSecond;
  channel.codec = health.codec;
  channel.width = health.width;
  channel.height = health.height;
  channel.pictures = health.pictures;
  channel.bytes = health.bytes;
  channel.reconnects = health.reconnects;
  return channel;
}

}  // namespace

HealthReporter::HealthReporter(const ChannelHealthBoard& board, Options options)
    : mBoard(board), mOptions(std::move(options)), mStarted(Now().wall), mMoved(Now().monotonic) {
  if (!mOptions.root.empty()) mWriter = std::thread([this] { WriteFiles(); });
  mWatcher = std::thread([this] { Watch(); });
}

HealthReporter::~HealthReporter() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mEnd = true;
  }
  mEnding.notify_all();
  mWatcher.join();
  if (mWriter.joinable()) mWriter.join();
}

bool HealthReporter::Move() {
  const int64_t now = Now().monotonic;
  mMoved = now;
  return !mNoted.exchange(true);
}

void HealthReporter::Note(Health health) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mHealth = std::move(health);
}

// False: the time is over; true: the end has come.
bool HealthReporter::WaitForEnd(int64_t micros) {
  std::unique_lock<std::mutex> lock(mMutex);
  return mEnding.wait_for(lock, std::chrono::microseconds(micros), [this] { return mEnd; });
}

Health HealthReporter::Collect() {
  static const std::string host = HostName();
  const ChannelHealthBoard::Moment now = Now();
  Health health;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    health = mHealth;
    health.stopped = mEnd;
  }
  health.written = now.wall;
  health.started = mStarted;
  health.moved = now.wall - (now.monotonic - mMoved);
  health.pid = getpid();
  health.host = host;
  const LastComplaint last = GetLastComplaint();
  health.lastError = last.text;
  health.lastErrorTime = last.seconds * kMicros;
  int number = 0;
  for (const ChannelHealth& each : mBoard.Look(now)) {
    if (!each.address.empty()) health.channels.push_back(Describe(number, each, mOptions.names));
    number++;
  }
  return health;
}

void HealthReporter::WriteFiles() {
  bool said = false;
  for (bool end = false; !end;) {
    end = WaitForEnd(kEvery);
    mNoted = false;
    if (WriteHealth(mOptions.root, Collect())) {
      said = false;
    } else if (!said) {
      said = true;
      Complain("cannot write how the recording is doing to %s: %s", mOptions.root.c_str(),
               std::strerror(errno));
    }
  }
}

std::string HealthReporter::StatusLine() {
  int recording = 0, lost = 0, all = 0;
  for (const ChannelHealth& each : mBoard.Look()) {
    if (each.address.empty()) continue;
    all++;
    recording += each.state == ChannelHealth::State::kRecording ? 1 : 0;
    lost += each.state == ChannelHealth::State::kLost ? 1 : 0;
  }
  const std::lock_guard<std::mutex> lock(mMutex);
  std::string line = "recording " + std::to_string(recording) + " of " + std::to_string(all) + " channels";
  if (lost > 0) line += ", " + std::to_string(lost) + " lost";
  if (mHealth.paused) line += "; paused: no disk can be used";
  return line;
}

// The watchdog is fed while the recording's own rounds go on, and pictures come or attempts to get them are
// made: whatever is stuck beyond its own time limits is then started afresh by systemd.
void HealthReporter::Watch() {
  uint64_t watchdog = 0;
  if (sd_watchdog_enabled(0, &watchdog) <= 0) watchdog = 0;
  sd_notify(0, "READY=1");
  int64_t progress = -1;
  int64_t progressed = 0;
  int64_t fed = 0;
  int64_t told = 0;
  std::string line;
  bool stopping = false;
  for (;;) {
    const int64_t now = Now().monotonic;
    int64_t sum = 0;
    for (const ChannelHealth& each : mBoard.Look()) sum += each.pictures + each.attempts;
    if (sum != progress) progressed = now;
    progress = sum;
    const bool moves = now - mMoved < kLoopLimit && now - progressed < mOptions.longestRetry + kMargin;
    if (watchdog != 0 && moves && now - fed >= static_cast<int64_t>(watchdog / 3)) {
      sd_notify(0, "WATCHDOG=1");
      fed = now;
    }
    if (now - told >= kEvery) {
      told = now;
      mNoted = false;
      const std::string next = StatusLine();
      if (next != line) sd_notifyf(0, "STATUS=%s", next.c_str());
      line = next;
    }
    const bool end = WaitForEnd(kWatchEvery);
    if ((end || gStop) && !stopping) sd_notify(0, "STOPPING=1");
    stopping = gStop;
    if (end) return;
  }
}

void NotifyStandby(const std::string& line) {
  sd_notifyf(0, "READY=1\nWATCHDOG=1\nSTATUS=standing by: %s", Printable(line).c_str());
}

void EndInTime() {
  std::thread([] {
    int64_t stopped = 0;
    for (;;) {
      std::this_thread::sleep_for(std::chrono::microseconds(kWatchEvery));
      if (!gStop) continue;
      if (stopped == 0) stopped = Now().monotonic;
      if (Now().monotonic - stopped < kStopLimit - kWatchEvery) continue;
      Complain("stopping takes too long; the next start repairs what is open");
      _exit(kRefused);
    }
  }).detach();
}

}  // namespace recorder
