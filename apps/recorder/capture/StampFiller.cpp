#include "apps/recorder/capture/StampFiller.h"

#include <algorithm>

namespace recorder {

namespace {

constexpr int kDeepestReorder = 16;  // of H.264 and H.265

}  // namespace

std::optional<StampFiller::Stamps> StampFiller::Take(bool last) {
  if (mGiven.empty()) return std::nullopt;
  if (mStarted && mGiven.front().pts && *mGiven.front().pts < mHighest - mOptions.jump) mStarted = false;
  if (!mStarted) {
    if (!CanStart(last)) return std::nullopt;
    Start();
  }
  const Given given = mGiven.front();
  mGiven.pop_front();
  const Stamps stamps = mOptions.decodeStamps ? Decoded(given) : Presented(given);
  mLastPts = stamps.pts;
  mHighest = std::max(mHighest, stamps.pts);
  mLastDts = stamps.dts;
  return stamps;
}

// The earliest presentation is found among the first packets; a first one without any stamp needs another.
bool StampFiller::CanStart(bool last) const {
  if (last) return true;
  const Given& first = mGiven.front();
  const bool unknown = !first.pts && (!first.dts || !mOptions.decodeStamps);
  const int needed = mOptions.decodeStamps ? 1 : mOptions.reorder + 1;
  return mGiven.size() >= static_cast<size_t>(needed + (unknown ? 1 : 0));
}

void StampFiller::Start() {
  Given& first = mGiven.front();
  std::optional<int64_t> earliest;
  for (const Given& given : mGiven) {
    const std::optional<int64_t>& known = mOptions.decodeStamps && given.dts ? given.dts : given.pts;
    if (known) earliest = earliest ? std::min(*earliest, *known) : *known;
  }
  const bool unknown = !first.pts && (!first.dts || !mOptions.decodeStamps);
  mFirst = earliest.value_or(unknown ? mOptions.interval : 0) - (unknown ? mOptions.interval : 0);
  if (unknown) first.pts = mFirst;
  mShown = {};
  mHighest = mLastPts = mFirst - 1;
  mLastDts = mFirst - (mOptions.reorder + 1) * mOptions.interval - 1;
  mStarted = true;
}

StampFiller::Stamps StampFiller::Decoded(const Given& given) {
  const bool begins = mHighest < mFirst;
  const int64_t dts = given.dts.value_or(begins ? given.pts.value_or(mFirst) : mLastDts + mOptions.interval);
  const int64_t next = begins || dts < mLastDts - mOptions.jump ? dts : std::max(dts, mLastDts + 1);
  return {given.pts.value_or(next), next};
}

// The presentation times in order, `reorder` packets later, are the decoding times: the latest that are never
// behind a presentation.
StampFiller::Stamps StampFiller::Presented(const Given& given) {
  const int64_t pts = given.pts.value_or(mHighest + mOptions.interval);
  if (pts == mLastPts) return {pts, mLastDts + 1};  // a picture in several packets
  mShown.push(pts);
  const auto held = static_cast<int>(mShown.size());
  if (held <= mOptions.reorder) {
    return {pts, std::max(mLastDts + 1, mFirst - (mOptions.reorder - held + 1) * mOptions.interval)};
  }
  const int64_t earliest = mShown.top();
  mShown.pop();
  if (earliest > mLastDts) return {pts, earliest};
  mOptions.reorder = std::min(mOptions.reorder + 1, kDeepestReorder);  // deeper than was known
  return {pts, mLastDts + 1};
}

}  // namespace recorder
