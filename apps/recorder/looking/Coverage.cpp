#include "apps/recorder/looking/Coverage.h"

#include <algorithm>
#include <iterator>

#include "SearchDb.h"
#include "fmgr/FmgrFileManager.h"
#include "platform/host/imf/ImfCoverage.h"

namespace recorder {

namespace {

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
  mKnown.reserve(chart.recordings.size());
  for (TimeSearchRecording& each : chart.recordings) {
    mKnown.emplace_back(Key{each.startTime, each.endTime, each.channelMask}, std::move(each.spans));
  }
  const auto ascending = [](const auto& a, const auto& b) { return a.first < b.first; };
  if (!std::is_sorted(mKnown.begin(), mKnown.end(), ascending)) {
    std::stable_sort(mKnown.begin(), mKnown.end(), ascending);
  }
}

std::vector<PictureSpan> Coverage::Of(const Recording& recording) const {
  const Key key = {recording.start, recording.end, recording.mask};
  // Of several the last, which was read last.
  const auto behind = std::upper_bound(mKnown.begin(), mKnown.end(), key,
                                       [](const Key& wanted, const auto& each) { return wanted < each.first; });
  const bool isKnown = behind != mKnown.begin() && std::prev(behind)->first == key;
  if (recording.state == Recording::State::kComplete && isKnown) {
    const std::vector<PictureSpan>& spans = std::prev(behind)->second;
    if (!spans.empty() || recording.mask == 0) return spans;
  }
  std::vector<PictureSpan> spans;
  if (ReadCoverage(recording.path, static_cast<uint32_t>(recording.start), &spans)) return spans;
  for (int channel = 0; channel < IMF_CHANNEL_LIMIT; channel++) {
    const int64_t end = std::max(recording.end, recording.start + 1);
    if (recording.HasChannel(channel)) spans.push_back({channel, recording.start * kMicros, end * kMicros});
  }
  return spans;
}

size_t Coverage::CountDifferences(const std::vector<Recording>& recordings) const {
  const auto open = std::find_if(recordings.begin(), recordings.end(), [](const Recording& each) {
    return each.state != Recording::State::kComplete;
  });
  const int64_t settled = open != recordings.end() ? open->start : kLatestTime;
  std::vector<Key> named;
  std::vector<Key> known;
  for (const Recording& each : recordings) {
    if (each.start < settled) named.emplace_back(each.start, each.end, each.mask);
  }
  for (const auto& [key, spans] : mKnown) {
    if (std::get<0>(key) < settled && Overlaps(std::get<0>(key), std::get<1>(key), mRange))
      known.push_back(key);
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

std::map<int, std::vector<PictureSpan>> PartlyCovered(const Recording& recording,
                                                      const std::vector<PictureSpan>& spans) {
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
  std::map<int, std::vector<PictureSpan>> partly;
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
