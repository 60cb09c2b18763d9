#include "apps/recorder/capture/ChannelHealth.h"

#include <algorithm>
#include <ctime>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr int64_t kSameMoment = 100;       // microseconds
constexpr int64_t kSilence = 3 * kMicros;  // without a picture

int64_t Microseconds(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec * kMicros + now.tv_nsec / 1000;
}

}  // namespace

const char* NameOf(ChannelHealth::State state) {
  switch (state) {
    case ChannelHealth::State::kConnecting:
      return "connecting";
    case ChannelHealth::State::kRecording:
      return "recording";
    case ChannelHealth::State::kSilent:
      return "silent";
    case ChannelHealth::State::kLost:
      return "lost";
    case ChannelHealth::State::kEnded:
      return "ended";
  }
  return "";
}

ChannelHealthBoard::Moment ChannelHealthBoard::Moment::Now() {
  // Whoever is put aside between two clocks sees them apart.
  Moment best;
  int64_t least = INT64_MAX;
  for (int i = 0; i < 3 && least > kSameMoment; i++) {
    const int64_t before = Microseconds(CLOCK_MONOTONIC);
    const int64_t wall = Microseconds(CLOCK_REALTIME);
    const int64_t after = Microseconds(CLOCK_MONOTONIC);
    if (after - before < least) best = {wall, before + (after - before) / 2};
    least = std::min(least, after - before);
  }
  return best;
}

ChannelHealthBoard::ChannelHealthBoard(const std::vector<std::string>& addresses, Moment now)
    : mChannels(addresses.size()) {
  for (size_t i = 0; i < addresses.size(); i++) {
    mChannels[i].health.address = addresses[i];
    mChannels[i].health.since = now.wall;
  }
}

void ChannelHealthBoard::NotePicture(int channel, size_t bytes, Moment now) {
  const std::lock_guard<std::mutex> lock(mMutex);
  Channel& entry = mChannels[static_cast<size_t>(channel)];
  ChannelHealth& health = entry.health;
  if (health.state != ChannelHealth::State::kRecording) {
    health.state = ChannelHealth::State::kRecording;
    health.since = now.wall;
    entry.firstPicture = now.monotonic;
  }
  entry.lastArrival = now.monotonic;
  health.lastPicture = now.wall;
  health.pictures++;
  health.bytes += static_cast<int64_t>(bytes);
  const int64_t number = now.monotonic / kMicros;
  Second& second = entry.seconds[number % kSeconds];
  if (second.number != number) second = {number, 0, 0};
  second.pictures++;
  second.bytes += static_cast<int64_t>(bytes);
}

void ChannelHealthBoard::NoteCoding(int channel, const std::string& codec, int width, int height) {
  const std::lock_guard<std::mutex> lock(mMutex);
  ChannelHealth& health = mChannels[static_cast<size_t>(channel)].health;
  health.codec = codec;
  health.width = width;
  health.height = height;
}

void ChannelHealthBoard::NoteLost(int channel, const std::string& reason, Moment now) {
  const std::lock_guard<std::mutex> lock(mMutex);
  ChannelHealth& health = mChannels[static_cast<size_t>(channel)].health;
  if (health.state != ChannelHealth::State::kLost) health.since = now.wall;
  health.state = ChannelHealth::State::kLost;
  health.reason = reason;
  health.attempts++;
}

void ChannelHealthBoard::NoteBack(int channel) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mChannels[static_cast<size_t>(channel)].health.reconnects++;
}

void ChannelHealthBoard::NoteEnded(int channel, const std::string& reason, Moment now) {
  const std::lock_guard<std::mutex> lock(mMutex);
  ChannelHealth& health = mChannels[static_cast<size_t>(channel)].health;
  health.state = ChannelHealth::State::kEnded;
  health.since = now.wall;
  health.reason = reason;
}

std::vector<ChannelHealth> ChannelHealthBoard::Look(Moment now) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  std::vector<ChannelHealth> all;
  const int64_t current = now.monotonic / kMicros;
  for (const Channel& channel : mChannels) {
    ChannelHealth health = channel.health;
    if (health.state == ChannelHealth::State::kRecording && now.monotonic - channel.lastArrival > kSilence) {
      health.state = ChannelHealth::State::kSilent;
      health.since = health.lastPicture;
    }
    if (health.state == ChannelHealth::State::kRecording || health.state == ChannelHealth::State::kSilent) {
      int64_t pictures = 0;
      int64_t bytes = 0;
      for (const Second& second : channel.seconds) {
        if (second.number < current - (kSeconds - 1) || second.number >= current) continue;
        pictures += second.pictures;
        bytes += second.bytes;
      }
      const int64_t begin = std::max(current - (kSeconds - 1), channel.firstPicture / kMicros);
      const auto seconds = static_cast<double>(std::max<int64_t>(1, current - begin));
      health.picturesPerSecond = static_cast<double>(pictures) / seconds;
      health.bytesPerSecond = static_cast<double>(bytes) / seconds;
    }
    all.push_back(std::move(health));
  }
  return all;
}

}  // namespace recorder
