// recorder timeline: what is recorded when, in the terminal or as a picture. Looks only.
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "SearchDb.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/clip/OutputFile.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Timeline.h"
#include "fmgr/FmgrFileManager.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

struct Options {
  RangeOptions range;
  std::string output;
  bool force = false;
};

int ColumnsOfTerminal() {
  winsize size{};
  if (isatty(STDOUT_FILENO) != 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return std::max<int>(size.ws_col, 40);
  }
  const char* columns = std::getenv("COLUMNS");
  const int width = columns != nullptr ? std::atoi(columns) : 0;
  return width > 0 ? std::clamp(width, 40, 1000) : 80;
}

// Whatever is recorded, where the options leave an end open.
Refusal ChooseRange(const RangeOptions& options, const Recordings& recordings, Range* range) {
  const std::vector<Recording> all = recordings.Find(Range(), options.channel);
  if (all.empty()) return std::nullopt;
  range->since = all.front().start * kMicros;
  range->until = range->since;
  for (const Recording& each : all) range->until = std::max(range->until, each.end * kMicros);
  return ParseRange(options, range);
}

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

Timeline Collect(const Disks& disks, const Recordings& recordings, const Range& range, int channel) {
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

nlohmann::ordered_json ToJson(const std::vector<Span>& spans) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Span& span : spans) {
    nlohmann::ordered_json each = {{"start", FormatTime(span.begin)}, {"end", FormatTime(span.end)}};
    if (span.growing) each["state"] = NameOfState(Recording::State::kGrowing);
    list.push_back(each);
  }
  return list;
}

void PrintJson(const Timeline& timeline) {
  for (const auto* rows : {&timeline.channels, &timeline.disks}) {
    for (const TimelineRow& row : *rows) {
      nlohmann::ordered_json line;
      line["row"] = row.label;
      line["coverage"] = CoverageOf(row, timeline);
      line["recorded"] = ToJson(Merge(row.spans, timeline.since, timeline.until));
      if (rows == &timeline.channels) line["gaps"] = ToJson(GapsOf(row, timeline));
      std::printf("%s\n", line.dump().c_str());
    }
  }
  const auto time = [](int64_t seconds) {
    return seconds != 0 ? nlohmann::ordered_json(FormatTime(seconds)) : nlohmann::ordered_json(nullptr);
  };
  nlohmann::ordered_json line;
  line["since"] = FormatTime(timeline.since);
  line["until"] = FormatTime(timeline.until);
  line["before"] = time(timeline.before);
  line["after"] = time(timeline.after);
  std::printf("%s\n", line.dump().c_str());
}

Refusal WritePicture(const Timeline& timeline, const Options& options, const Disks& disks) {
  OutputFile output;
  if (Refusal refusal = output.Create(options.output, options.force, disks)) return refusal;
  const std::string error = DrawPicture(timeline, output.TemporaryPath(), HasSuffix(options.output, ".svg"));
  if (!error.empty()) return "cannot write " + options.output + ": " + error;
  return output.Keep();
}

int ShowTimeline(const Options& options, std::string root) {
  const int channel = options.range.channel;
  Range range;
  Disks disks;
  std::optional<Recordings> recordings;
  Refusal refusal = ParseRange(options.range, &range);
  if (!refusal && !options.output.empty() && !HasSuffix(options.output, ".png") &&
      !HasSuffix(options.output, ".svg")) {
    refusal = "cannot write " + options.output + ": a timeline is a .png or an .svg";
  }
  if (!refusal) refusal = OpenToLook(&root, &disks);
  if (!refusal) {
    recordings.emplace(disks);
    if (channel != kAnyChannel) refusal = RefuseChannel(channel, recordings->Channels());
  }
  if (!refusal) refusal = ChooseRange(options.range, *recordings, &range);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  if (recordings->Find(range, channel).empty()) {
    recordings->ComplainOfNothing(range, channel);
    return kFound;
  }
  const Timeline timeline = Collect(disks, *recordings, range, channel);
  if (!options.output.empty()) {
    if (Refusal written = WritePicture(timeline, options, disks)) {
      Complain("%s", written->c_str());
      return kRefused;
    }
    if (!options.range.json) std::printf("%s\n", options.output.c_str());
  }
  if (options.range.json) {
    PrintJson(timeline);
  } else if (options.output.empty()) {
    std::fputs(DrawText(timeline, ColumnsOfTerminal(), isatty(STDOUT_FILENO) != 0).c_str(), stdout);
  }
  return kDone;
}

}  // namespace

void AddTimelineCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("timeline", "Show what is recorded when (default: all of it)");
  AddRangeOptions(command, &options->range, false);
  command->add_option("-o,--output", options->output, "Draw a picture into this file, .png or .svg");
  command->add_flag("--force", options->force, "Replace the file when it exists");
  command->callback([options, &context] {
    context.run = [options, &context] { return ShowTimeline(*options, context.root); };
  });
}

}  // namespace recorder
