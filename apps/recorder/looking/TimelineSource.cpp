#include "apps/recorder/looking/TimelineSource.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Coverage.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

constexpr int64_t kPresent = 5 * kMicros;  // so long before a growing recording's end counts as now

// Spans, put into ascending order, as whole seconds: what is covered in part counts as covered, and a gap of
// more than two seconds leaves a second open at least.
void AddSpans(const Recording& recording, std::vector<PictureSpan>& spans, int64_t* lastEnd, TimelineRow* row) {
  std::sort(spans.begin(), spans.end(),
            [](const PictureSpan& a, const PictureSpan& b) { return a.begin < b.begin; });
  int64_t latest = 0;
  for (const PictureSpan& span : spans) latest = std::max(latest, span.end);
  for (const PictureSpan& span : spans) {
    Span seconds = {span.begin / kMicros, RoundedUp(span.end), false};
    if (span.begin - *lastEnd <= kShortGap && !row->spans.empty()) {
      seconds.begin = std::min(seconds.begin, RoundedUp(*lastEnd));
    }
    seconds.growing = recording.state == Recording::State::kGrowing && latest - span.end <= kPresent;
    *lastEnd = std::max(*lastEnd, span.end);
    Span* const last = row->spans.empty() ? nullptr : &row->spans.back();
    if (last != nullptr && last->growing == seconds.growing && last->begin <= seconds.begin &&
        seconds.begin <= last->end) {
      last->end = std::max(last->end, seconds.end);
    } else {
      row->spans.push_back(seconds);
    }
  }
}

}  // namespace

Refusal ChooseRange(const RangeOptions& options, const Recordings& recordings, Range* range) {
  std::optional<Range> whole;
  for (const Recording& each : recordings.All()) {
    if (!each.HasChannel(options.channel)) continue;
    if (!whole) whole = Range{each.start * kMicros, each.start * kMicros};
    whole->until = std::max(whole->until, each.end * kMicros);
  }
  if (!whole) return std::nullopt;
  *range = *whole;
  return ParseRange(options, range);
}

Timeline CollectTimeline(const Disks& disks, const Recordings& recordings, const Range& range, int channel,
                         const ChannelNames& names) {
  Timeline timeline;
  timeline.since = range.since / kMicros;
  timeline.until = std::max((range.until + kMicros - 1) / kMicros, timeline.since + 1);
  const Range whole = {timeline.since * kMicros, timeline.until * kMicros};

  const Coverage coverage(disks, whole);
  if (const size_t differences = coverage.CountDifferences(recordings)) {
    Complain(
        "the search databases and the file names differ in %zu recordings; shown is what names and files say",
        differences);
  }

  const uint32_t channels = recordings.Channels();
  std::map<int, TimelineRow> rows;
  std::map<int, int64_t> ends;
  for (int number = 0; number < IMF_CHANNEL_LIMIT; number++) {
    if ((channels >> number & 1) == 0 || (channel != kAnyChannel && channel != number)) continue;
    rows[number].label = DescribeChannel(number, names);
  }
  std::map<std::string, TimelineRow> disksRows;
  std::map<std::string, int64_t> disksEnds;
  std::vector<PictureSpan> own;
  recordings.ForEach(whole, kAnyChannel, [&](const Recording& each) {
    const std::vector<PictureSpan>& spans = coverage.Of(each);
    for (auto& [number, row] : rows) {
      own.clear();
      std::copy_if(spans.begin(), spans.end(), std::back_inserter(own),
                   [number = number](const PictureSpan& span) { return span.channel == number; });
      AddSpans(each, own, &ends[number], &row);
    }
    own = spans;
    AddSpans(each, own, &disksEnds[each.disk], &disksRows[each.disk]);
  });
  for (const auto& [number, row] : rows) timeline.channels.push_back(row);
  for (const Disk& disk : disks.All()) {
    timeline.disks.push_back({"disk " + disk.name, disksRows[disk.name].spans});
  }

  if (const std::optional<Moment> end = LastPictureBefore(disks, recordings, whole.since, channel)) {
    timeline.before = std::min(RoundedUp(end->time), timeline.since);
  }
  if (const std::optional<Moment> begin = FirstPictureAfter(disks, recordings, whole.until, channel)) {
    timeline.after = std::max(begin->time / kMicros, timeline.until);
  }
  return timeline;
}

}  // namespace recorder
