#include "apps/recorder/looking/TimelineSource.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "SearchDb.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "fmgr/FmgrFileManager.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

// A search database knows completed recordings only, and it may lag behind the file names, which are the truth.
// Returns how many recordings are in one and not in the other.
size_t CountDifferences(const TimeSearchChart& chart, const std::vector<Recording>& recordings,
                        const Range& range) {
  using Key = std::tuple<int64_t, int64_t, uint32_t>;
  // A recorder at work completes a recording in one step and adds it to the database in the next.
  const auto open = std::find_if(recordings.begin(), recordings.end(), [](const Recording& each) {
    return each.state != Recording::State::kComplete;
  });
  const int64_t settled = open != recordings.end() ? open->start : kLatestTime;
  std::set<Key> named;
  std::set<Key> known;
  for (const Recording& each : recordings) {
    if (each.start < settled) named.emplace(each.start, each.end, each.mask);
  }
  for (const TimeSearchRecording& each : chart.recordings) {
    Recording recording;
    recording.start = each.startTime;
    recording.end = each.endTime;
    if (each.startTime < settled && recording.Overlaps(range)) {
      known.emplace(each.startTime, each.endTime, each.channelMask);
    }
  }
  std::vector<Key> differences;
  std::set_symmetric_difference(named.begin(), named.end(), known.begin(), known.end(),
                                std::back_inserter(differences));
  return differences.size();
}

}  // namespace

Refusal ChooseRange(const RangeOptions& options, const Recordings& recordings, Range* range) {
  const std::vector<Recording> all = recordings.Find(Range(), options.channel);
  if (all.empty()) return std::nullopt;
  range->since = all.front().start * kMicros;
  range->until = range->since;
  for (const Recording& each : all) range->until = std::max(range->until, each.end * kMicros);
  return ParseRange(options, range);
}

Timeline CollectTimeline(const Disks& disks, const Recordings& recordings, const Range& range, int channel) {
  Timeline timeline;
  timeline.since = range.since / kMicros;
  timeline.until = std::max((range.until + kMicros - 1) / kMicros, timeline.since + 1);
  const Range whole = {timeline.since * kMicros, timeline.until * kMicros};

  TimeSearchChart chart;
  chart.startTime = static_cast<int32_t>(timeline.since);
  chart.endTime = static_cast<int32_t>(timeline.until);
  disks.Manager()->CollectSearchData(&chart);
  const std::vector<Recording> found = recordings.Find(whole, kAnyChannel);
  if (const size_t differences = CountDifferences(chart, found, whole)) {
    Complain("the search databases and the file names differ in %zu recordings; shown is what the names say",
             differences);
  }

  const uint32_t channels = recordings.Channels();
  for (int number = 0; number < IMF_CHANNEL_LIMIT; number++) {
    if ((channels >> number & 1) == 0 || (channel != kAnyChannel && channel != number)) continue;
    TimelineRow row{"channel " + std::to_string(number), {}};
    for (const Recording& each : found) {
      const bool growing = each.state == Recording::State::kGrowing;
      if (each.HasChannel(number))
        row.spans.push_back({each.start, std::max(each.end, each.start + 1), growing});
    }
    timeline.channels.push_back(row);
  }
  for (const Disk& disk : disks.All()) {
    TimelineRow row{"disk " + disk.name, {}};
    for (const Recording& each : found) {
      const bool growing = each.state == Recording::State::kGrowing;
      if (each.disk == disk.name)
        row.spans.push_back({each.start, std::max(each.end, each.start + 1), growing});
    }
    timeline.disks.push_back(row);
  }

  // The chart's hints know of data directories that lie wholly outside.
  timeline.before = chart.latestEndBefore;
  timeline.after = chart.earliestStartAfter;
  if (const std::optional<Recording> before = recordings.LastBefore(whole.since, channel)) {
    timeline.before = std::max(timeline.before, std::min(before->end, timeline.since));
  }
  if (const std::optional<Recording> after = recordings.FirstAfter(whole.until, channel)) {
    const int64_t start = std::max(after->start, timeline.until);
    timeline.after = timeline.after == 0 ? start : std::min(timeline.after, start);
  }
  return timeline;
}

}  // namespace recorder
