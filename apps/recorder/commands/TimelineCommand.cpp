// recorder timeline: what is recorded when, in the terminal or as a picture. Looks only.
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/clip/OutputFile.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/JsonLine.h"
#include "apps/recorder/looking/LiveHealth.h"
#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Timeline.h"
#include "apps/recorder/looking/TimelineSource.h"

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
      PrintLine(line);
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
  PrintLine(line);
}

Refusal WritePicture(const Timeline& timeline, const Options& options, const Disks& disks) {
  OutputFile output;
  if (Refusal refusal = output.Create(options.output, options.force, disks)) return refusal;
  const std::string error = DrawPicture(timeline, output.TemporaryPath(), HasSuffix(options.output, ".svg"));
  if (!error.empty()) return "cannot write " + options.output + ": " + error;
  return output.Keep();
}

int ShowTimeline(Options options, std::string root, const ChannelNames& configured) {
  const ChannelNames names = NamesIn(root, configured);
  Range range;
  Disks disks;
  std::optional<Recordings> recordings;
  Refusal refusal = ChooseChannel(names, &options.range);
  if (!refusal) refusal = ParseRange(options.range, &range);
  const int channel = options.range.channel;
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
  const Timeline timeline = CollectTimeline(disks, *recordings, range, channel, names);
  if (!options.output.empty()) {
    if (Refusal written = WritePicture(timeline, options, disks)) {
      Complain("%s", written->c_str());
      return kRefused;
    }
    if (!options.range.json) Print("%s\n", options.output.c_str());
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
    context.run = [options, &context] { return ShowTimeline(*options, context.root, context.names); };
  });
}

}  // namespace recorder
