#include "apps/recorder/capture/ChannelClock.h"

#include <algorithm>
#include <cstdlib>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr int64_t kWindow = 30 * kMicros;       // in which the least delayed packet counts
constexpr int64_t kLearning = kMicros / 2;      // what a new connection had in store has come by then
constexpr int64_t kJump = 1 * kMicros;          // an error that is not corrected slowly
constexpr int64_t kCameraTrust = 10 * kMicros;  // how far a camera's clock may be from the machine's
constexpr int64_t kClockJump = 5 * kMicros;     // a time of day set by less is followed slowly
constexpr int64_t kLongestStep = 1 * kMicros;   // of stream time, as far as corrections go
// Corrections, as parts of the time that passes. Packets can only be late, never early, so an error that makes
// pictures late is proven and goes quickly, though never so quickly that the order of the pictures between a
// picture's decoding and its display suffers. Cameras' clocks are at most 500 ppm off.
constexpr int64_t kQuick = 32;
constexpr int64_t kSlow = 1000;
constexpr size_t kKept = 64;                   // pictures whose order bears on each other's
constexpr double kHaste = 15.0 / 16;           // of the quickest that keeps the order
constexpr int64_t kOverlap = kMicros / 2;      // of two ties, that is made up for unhurriedly
constexpr int64_t kSoundReach = 10 * kMicros;  // of the picture before

}  // namespace

int64_t PictureOrder::Keep(const StreamStamps& stamps, int64_t offset) {
  // Of what lies between two pictures something is left, for one that is still to come between them.
  const auto nearest = [](int64_t gap) { return gap - std::max<int64_t>(1, gap / kQuick); };
  int64_t least = INT64_MIN;
  int64_t most = INT64_MAX;
  for (const auto& [kept, keptOffset] : mKept) {
    const int64_t gap = stamps.pts - kept.pts;
    if (gap > 0) least = std::max(least, keptOffset - nearest(gap));
    if (gap < 0) most = std::min(most, keptOffset + nearest(-gap));
  }
  offset = std::max(least, std::min(offset, most));
  if (!mKept.empty()) {
    const auto& [last, lastOffset] = mKept.back();
    offset = std::max(offset, lastOffset - nearest(stamps.dts - last.dts));
  }
  mKept.emplace_back(stamps, offset);
  if (mKept.size() > kKept) mKept.pop_front();
  return offset;
}

// --- Stream's clock to the machine's ---

ChannelClock::Tie ChannelClock::Arrive(int64_t arrival, std::optional<StreamStamps> stamps,
                                       std::optional<int64_t> camera) {
  if (!mConnected || mTies.empty() || (stamps && HasJumped(mTies.back(), arrival, *stamps))) {
    State tie;
    tie.number = mNextTie++;
    tie.firstArrival = arrival;
    mTies.push_back(tie);
    mLastArrived.reset();
    mConnected = true;
  }
  State& tie = mTies.back();
  if (!stamps) return tie.number;
  NoteOrder(*stamps);
  mLastArrived = *stamps;
  NoteDifference(&tie, arrival, arrival - stamps->pts);
  if (camera) {
    mCameraRefused = std::abs(*camera - arrival) > kCameraTrust;
    if (!mCameraRefused) {
      tie.camera = *camera - stamps->pts;
      tie.cameraArrival = arrival;
    }
  } else if (arrival - tie.cameraArrival > kWindow) {
    tie.camera.reset();
  }
  return tie.number;
}

// A stream that goes back has been set. So has one that runs ahead by more than its packets can have been late.
// When none comes on time any more, for as long as the window, the source stood still for a while.
bool ChannelClock::HasJumped(const State& tie, int64_t arrival, const StreamStamps& stamps) const {
  if (tie.window.empty()) return false;
  if (mLastArrived && stamps.dts <= mLastArrived->dts) return true;
  if (!tie.placed) return false;
  const int64_t target = Target(tie);
  if (tie.camera) return std::abs(target - tie.offset) > kJump;
  return arrival - stamps.pts < tie.offset - kJump ||
         (arrival - tie.firstArrival > kWindow && target > tie.offset + kJump);
}

void ChannelClock::NoteOrder(const StreamStamps& stamps) {
  mLeastDelay = std::min(mLeastDelay, stamps.pts - stamps.dts);
  mMostDelay = std::max(mMostDelay, stamps.pts - stamps.dts);
  const int64_t interval = mLastArrived ? std::abs(stamps.pts - mLastArrived->pts) : 0;
  if (interval > 0 && (mInterval == 0 || interval < mInterval)) mInterval = interval;
}

void ChannelClock::NoteDifference(State* tie, int64_t arrival, int64_t difference) {
  std::deque<Bucket>& window = tie->window;
  if (window.empty() || arrival >= window.back().begin + kMicros) {
    window.push_back({arrival, difference});
  } else {
    window.back().difference = std::min(window.back().difference, difference);
  }
  while (window.front().begin < arrival - kWindow) window.pop_front();
}

int64_t ChannelClock::Least(const State& tie) {
  int64_t least = tie.window.front().difference;
  for (const Bucket& bucket : tie.window) least = std::min(least, bucket.difference);
  return least;
}

int64_t ChannelClock::Target(const State& tie) { return tie.camera ? *tie.camera : Least(tie); }

// One thing at a time, since each goes as far as the order of the pictures allows.
void ChannelClock::Correct(State* tie, int64_t step) const {
  if (tie->behind > 0) {
    const double haste = tie->hurries ? Haste() : 1.0 / kQuick;
    tie->behind -= std::min(tie->behind, static_cast<int64_t>(static_cast<double>(step) * haste));
    return;
  }
  const int64_t error = Target(*tie) - tie->offset;
  if (error < 0) {
    tie->offset -= std::min(-error, step / kQuick);
  } else {
    tie->offset += std::min(error, step / (tie->camera ? kQuick : kSlow));
  }
}

// How much earlier a picture may be put than its distance in decoding from the one before says. One that is
// decoded `d` before another and shown before it, too, is shown at least an interval before it, and `d` is no
// more than that and the difference of their delays.
double ChannelClock::Haste() const {
  const double quick = 1.0 / kQuick;
  const auto interval = static_cast<double>(mInterval);
  if (interval <= 0) return quick;
  return std::max(quick, kHaste * interval / (interval + static_cast<double>(mMostDelay - mLeastDelay)));
}

int64_t ChannelClock::Place(Tie number, int64_t arrival, std::optional<StreamStamps> stamps) {
  while (mTies.size() > 1 && mTies.front().number < number) mTies.pop_front();
  State& tie = mTies.front();
  int64_t time = arrival;
  if (stamps && !tie.window.empty()) {
    if (!tie.placed) {
      tie.placed = true;
      mOrder.Clear();
      tie.offset = Target(tie);
      // What is shown first may be decoded later, but not before this.
      if (mAnyPlaced) tie.behind = std::max<int64_t>(0, mLatest + 1 - (stamps->dts + tie.offset));
      tie.hurries = tie.behind > kOverlap;
    } else {
      Correct(&tie, std::clamp<int64_t>(stamps->dts - tie.lastDts, 0, kLongestStep));
    }
    tie.lastDts = stamps->dts;
    // What is known of the pictures so far paces corrections; the next may leave less between them.
    const int64_t kept = mOrder.Keep(*stamps, tie.offset + tie.behind);
    if (tie.behind > 0) tie.behind = std::max<int64_t>(0, kept - tie.offset);
    tie.offset = kept - tie.behind;
    time = stamps->pts + kept;
  } else if (mAnyPlaced) {
    time = std::max(time, mLatest + 1);
  }
  mLatest = mAnyPlaced ? std::max(mLatest, time) : time;
  mAnyPlaced = true;
  return time;
}

int64_t ChannelClock::PlaceSound(int64_t arrival, std::optional<StreamStamps> stamps) const {
  const State* tie = mTies.empty() ? nullptr : &mTies.front();
  if (!stamps || tie == nullptr || !tie->placed || std::abs(stamps->pts - tie->lastDts) > kSoundReach)
    return arrival;
  return stamps->pts + tie->offset + tie->behind;
}

int64_t ChannelClock::LearnedAt(Tie number) const {
  for (const State& tie : mTies) {
    if (tie.number == number) return tie.firstArrival + kLearning;
  }
  return 0;
}

// --- Machine's clock to the time of day ---

bool MachineClock::Look(int64_t monotonic, int64_t wall) {
  const int64_t error = wall - monotonic - mOffset;
  const bool jumped = mKnown && std::abs(error) > kClockJump;
  if (!mKnown || jumped) {
    mOffset += error;
    mTimeline++;
  } else {
    const int64_t most = std::clamp<int64_t>(monotonic - mLast, 0, kLongestStep) / kQuick;
    mOffset += std::clamp(error, -most, most);
  }
  mKnown = true;
  mLast = monotonic;
  return jumped;
}

int64_t ChannelDay::TimeOfDay(const MachineClock& machine, int64_t time, std::optional<int64_t> decodeTime) {
  const int64_t offset = machine.TimeOfDay(0);
  if (mTimeline != machine.Timeline()) {
    mTimeline = machine.Timeline();
    mOffset = offset;
    mOrder.Clear();
  } else if (decodeTime) {
    const int64_t most = std::max<int64_t>(*decodeTime - mLast, 0) / kQuick;
    mOffset += std::clamp(offset - mOffset, -most, most);
  }
  if (decodeTime) {
    mOffset = mOrder.Keep({time, *decodeTime}, mOffset);
    mLast = *decodeTime;
  }
  return time + mOffset;
}

}  // namespace recorder
