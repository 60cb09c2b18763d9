#include "apps/recorder/looking/Coverage.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <tuple>
#include <utility>

#include "fmgr/FmgrFileManager.h"
#include "platform/host/imf/ImfCoverage.h"

namespace recorder {

namespace {

using Key = std::tuple<int64_t, int64_t, uint32_t>;  // start, end, mask

Key KeyOf(const TimeSearchRecording& known) { return {known.startTime, known.endTime, known.channelMask}; }
Key KeyOf(const Recording& recording) { return {recording.start, recording.end, recording.mask}; }

bool IsOf(const PictureSpan& span, int channel) { return channel == kAnyChannel || span.channel == channel; }

std::vector<PictureSpan> SpansOf(const Disks& disks, const Recording& recording) {
  const Range whole = {recording.start * kMicros, std::max(recording.end, recording.start + 1) * kMicros};
  return Coverage(disks, whole).Of(recording);
}

}  // namespace

Coverage::Coverage(const Disks& disks, const Range& range) : mRange(range) {
  TimeSearchChart chart;
  chart.startTime = static_cast<int32_t>(range.since / kMicros);
  chart.endTime = static_cast<int32_t>(std::min(RoundedUp(range.until), kLatestTime));
  disks.Manager()->CollectSearchData(&chart);
  mKnown = std::move(chart.recordings);
  const auto ascending = [](const auto& a, const auto& b) { return KeyOf(a) < KeyOf(b); };
  if (!std::is_sorted(mKnown.begin(), mKnown.end(), ascending)) {
    std::stable_sort(mKnown.begin(), mKnown.end(), ascending);
  }
}

const std::vector<PictureSpan>& Coverage::Of(const Recording& recording) const {
  const Key key = KeyOf(recording);
  // Of several the last, which was read last.
  const auto behind =
      std::upper_bound(mKnown.begin(), mKnown.end(), key,
                       [](const Key& wanted, const auto& each) { return wanted < KeyOf(each); });
  const bool isKnown = behind != mKnown.begin() && KeyOf(*std::prev(behind)) == key;
  if (recording.state == Recording::State::kComplete && isKnown) {
    const std::vector<PictureSpan>& spans = std::prev(behind)->spans;
    if (!spans.empty() || recording.mask == 0) return spans;
  }
  std::vector<PictureSpan>& spans = mRead.emplace_back();
  if (ReadCoverage(recording.path, static_cast<uint32_t>(recording.start), &spans)) return spans;
  for (int channel = 0; channel < IMF_CHANNEL_LIMIT; channel++) {
    const int64_t end = std::max(recording.end, recording.start + 1);
    if (recording.HasChannel(channel)) spans.push_back({channel, recording.start * kMicros, end * kMicros});
  }
  return spans;
}

size_t Coverage::CountDifferences(const Recordings& recordings) const {
  const std::vector<Recording>& open = recordings.Open();
  const auto first =
      std::find_if(open.begin(), open.end(), [this](const Recording& each) { return each.Overlaps(mRange); });
  const int64_t settled = first != open.end() ? first->start : kLatestTime;
  std::vector<Key> named;
  std::vector<Key> known;
  named.reserve(mKnown.size());
  known.reserve(mKnown.size());
  recordings.ForEach(mRange, kAnyChannel, [&](const Recording& each) {
    if (each.start < settled) named.push_back(KeyOf(each));
  });
  for (const TimeSearchRecording& each : mKnown) {
    if (each.startTime < settled && Overlaps(each.startTime, each.endTime, mRange))
      known.push_back(KeyOf(each));
  }
  for (std::vector<Key>* keys : {&named, &known}) {
    if (!std::is_sorted(keys->begin(), keys->end())) std::sort(keys->begin(), keys->end());
    keys->erase(std::unique(keys->begin(), keys->end()), keys->end());
  }
  std::vector<Key> differences;
  std::set_symmetric_difference(named.begin(), named.end(), known.begin(), known.end(),
                                std::back_inserter(differences));
  return differences.size();
}

bool HasPictures(const std::vector<PictureSpan>& spans, int channel, const Range& range) {
  return std::any_of(spans.begin(), spans.end(), [&](const PictureSpan& span) {
    return IsOf(span, channel) && span.begin < range.until && span.end > range.since;
  });
}

PartlyRecorded PartlyCovered(const Recording& recording, const std::vector<PictureSpan>& spans) {
  const auto isThroughout = [&recording](const PictureSpan& span) {
    return span.begin - recording.start * kMicros < kWholeMargin &&
           recording.end * kMicros - span.end < kWholeMargin;
  };
  // Most recordings hold each channel from their begin to their end, in one span.
  uint32_t whole = 0;
  for (const PictureSpan& span : spans) {
    const uint32_t channel = uint32_t{1} << span.channel;
    if (!isThroughout(span) || (whole & channel) != 0) break;
    whole |= channel;
    if (&span == &spans.back() && (recording.mask & ~whole) == 0) return {};
  }
  PartlyRecorded partly;
  for (int channel = 0; channel < IMF_CHANNEL_LIMIT; channel++) {
    if (recording.HasChannel(channel)) partly[channel] = {};
  }
  for (const PictureSpan& span : spans) partly[span.channel].push_back(span);
  for (auto each = partly.begin(); each != partly.end();) {
    const std::vector<PictureSpan>& own = each->second;
    const bool isWhole = own.size() == 1 && isThroughout(own.front());
    each = isWhole ? partly.erase(each) : std::next(each);
  }
  return partly;
}

std::optional<Moment> LastPictureBefore(const Disks& disks, const Recordings& recordings, int64_t time,
                                        int channel) {
  for (auto each = recordings.LastBefore(time, channel); each; each = recordings.Previous(*each)) {
    if (!each->HasChannel(channel)) continue;
    std::optional<int64_t> last;
    for (const PictureSpan& span : SpansOf(disks, *each)) {
      if (IsOf(span, channel) && span.begin < time) last = std::max(last.value_or(span.end), span.end);
    }
    if (last) return Moment{*last, each->path};
  }
  return std::nullopt;
}

std::optional<Moment> FirstPictureAfter(const Disks& disks, const Recordings& recordings, int64_t time,
                                        int channel) {
  for (auto each = recordings.FirstAfter(time, channel); each; each = recordings.Next(*each)) {
    if (!each->HasChannel(channel)) continue;
    std::optional<int64_t> first;
    for (const PictureSpan& span : SpansOf(disks, *each)) {
      if (IsOf(span, channel) && span.end > time) first = std::min(first.value_or(span.begin), span.begin);
    }
    if (first) return Moment{*first, each->path};
  }
  return std::nullopt;
}

}  // namespace recorder
