// recorder export: a span of time of one channel as a file that plays anywhere, without re-encoding. Looks
// only.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/Input.h"
#include "apps/recorder/clip/Clip.h"
#include "apps/recorder/clip/OutputFile.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/JsonLine.h"
#include "apps/recorder/looking/LiveHealth.h"
#include "apps/recorder/looking/Recordings.h"

extern "C" {
#include <libavutil/log.h>
}

namespace recorder {

namespace {

struct Options {
  RangeOptions range;
  std::string output;
  std::string format;
  bool force = false;
};

// A bar on a terminal, nothing elsewhere.
class ExportProgress {
 public:
  void Show(double share, uint64_t bytes) {
    const Clock::time_point now = Clock::now();
    if (!mTerminal || now - mDrawn < std::chrono::milliseconds(100)) return;
    mDrawn = now;
    const double seconds = std::chrono::duration<double>(now - mBegin).count();
    const int filled = static_cast<int>(kWidth * share);
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '.');
    const std::string left = share > 0 ? FormatDuration(seconds / share * (1 - share)) + " left" : "";
    std::fprintf(stderr, "\rexporting [%s] %3.0f %%  %s  %.0f MiB/s  %s\033[K", bar.c_str(), 100 * share,
                 FormatSize(bytes).c_str(), static_cast<double>(bytes) / static_cast<double>(kMiB) / seconds,
                 left.c_str());
    std::fflush(stderr);
  }
  ~ExportProgress() {
    if (mDrawn != mBegin) std::fprintf(stderr, "\r\033[K");
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kWidth = 30;
  const bool mTerminal = isatty(STDERR_FILENO) != 0;
  const Clock::time_point mBegin = Clock::now();
  Clock::time_point mDrawn = mBegin;
};

// By the option or by the file's name; without either it is MP4.
Refusal ChooseFormat(const Options& options, ClipFormat* format) {
  const std::string name = NameOf(options.output);
  const size_t dot = name.rfind('.');
  const bool hasEnding = options.format.empty() && options.output != "-" && dot != std::string::npos;
  const std::string wanted = hasEnding ? name.substr(dot + 1) : options.format.empty() ? "mp4" : options.format;
  const std::optional<ClipFormat> found = ParseClipFormat(wanted);
  if (found) *format = *found;
  if (found) return std::nullopt;
  if (!hasEnding) return "--format " + wanted + " is not mp4, mov or mkv";
  return "cannot tell what " + options.output +
         " is to be: .mp4, .mov and .mkv can be written, or give --format";
}

// x.mp4, x-2.mp4, x-3.mp4 ...
std::string PartPath(const std::string& path, int number) {
  const size_t name = path.size() - NameOf(path).size();
  const size_t dot = path.rfind('.');
  const size_t end = dot == std::string::npos || dot <= name ? path.size() : dot;
  return path.substr(0, end) + "-" + std::to_string(number) + path.substr(end);
}

// Then it is not what was asked for, although there is something.
bool MissesMost(const Clip& clip) { return clip.MissingShare() > 0.5; }

// `paths`: what the parts are called. What standard output has no room for goes to standard error.
void Report(const std::vector<std::string>& paths, const Clip& clip, const Options& options,
            const ChannelNames& names) {
  for (const std::string& line : clip.LeftOut()) Complain("not in the clip: %s", line.c_str());
  for (const Clip::Missing& missing : clip.AllMissing()) {
    Complain("not in the clip: %s to %s (%s)", FormatExactTime(missing.from).c_str(),
             FormatExactTime(missing.to).c_str(), missing.reason.c_str());
  }
  char missed[60] = "";
  if (MissesMost(clip)) {
    std::snprintf(missed, sizeof missed, "; %.1f %% of the range is missing", 100 * clip.MissingShare());
  }
  size_t told = 0;  // of AllMissing()
  for (size_t i = 0; i < paths.size(); i++) {
    const Clip::Part& part = clip.Parts()[i];
    if (!options.range.json) {
      char length[64];
      std::snprintf(length, sizeof length, "%.2f s, %" PRId64 " pictures, ", part.seconds, part.pictures);
      const std::string line = paths[i] + ": " + DescribeChannel(options.range.channel, names) + ", " +
                               FormatExactTime(part.from) + " to " + FormatExactTime(part.to) + ", " + length +
                               FormatSize(part.bytes) + (i + 1 == paths.size() ? missed : "");
      if (options.output == "-") {
        Complain("%s", line.c_str());
      } else {
        Print("%s\n", line.c_str());
      }
      continue;
    }
    nlohmann::ordered_json line;
    line["output"] = paths[i];
    line["channel"] = options.range.channel;
    if (const auto name = names.find(options.range.channel); name != names.end()) line["name"] = name->second;
    line["start"] = FormatExactTime(part.from);
    line["end"] = FormatExactTime(part.to);
    line["seconds"] = part.seconds;
    line["pictures"] = part.pictures;
    line["bytes"] = part.bytes;
    if (i + 1 == paths.size()) line["missingShare"] = clip.MissingShare();
    line["missing"] = nlohmann::ordered_json::array();
    for (; told < clip.AllMissing().size(); told++) {
      const Clip::Missing& missing = clip.AllMissing()[told];
      if (i + 1 < paths.size() && missing.from >= part.to) break;
      line["missing"].push_back({{"start", FormatExactTime(missing.from)},
                                 {"end", FormatExactTime(missing.to)},
                                 {"reason", missing.reason}});
    }
    PrintLine(line);
  }
}

int Export(Options options, std::string root, const ChannelNames& configured) {
  const ChannelNames names = NamesIn(root, configured);
  Range range;
  Disks disks;
  std::optional<Recordings> recordings;
  const bool toStandard = options.output == "-";
  ClipWriter::Target target;
  std::deque<OutputFile> outputs;
  Refusal refusal = ChooseChannel(names, &options.range);
  const int channel = options.range.channel;
  if (!refusal) refusal = ParseRange(options.range, &range);
  if (!refusal) refusal = ChooseFormat(options, &target.format);
  if (!refusal && toStandard && isatty(STDOUT_FILENO) != 0) refusal = "-o - does not write to a terminal";
  if (!refusal && toStandard && options.range.json) refusal = "--json and -o - both need standard output";
  if (!refusal) refusal = OpenToLook(&root, &disks);
  if (!refusal) {
    recordings.emplace(disks);
    refusal = RefuseChannel(channel, recordings->Channels());
  }
  if (!refusal && !toStandard) refusal = outputs.emplace_back().Create(options.output, options.force, disks);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }

  if (toStandard) {
    signal(SIGPIPE, SIG_IGN);  // a reader that has seen enough is an error like others
    target.path = "-";
  } else {
    StopOnSignals();
    target.path = outputs.back().TemporaryPath();
  }
  const auto next = [&](int number, std::string* line) -> std::optional<std::string> {
    Refusal refused = outputs.emplace_back().Create(PartPath(options.output, number), options.force, disks);
    if (refused) *line = *refused;
    return refused ? std::nullopt : std::optional(outputs.back().TemporaryPath());
  };
  av_log_set_level(AV_LOG_QUIET);  // what matters of it is said in lines of our own
  Clip clip(disks, *recordings, channel, range);
  Clip::Result result;
  {
    ExportProgress progress;
    const auto show = [&](double share) {
      progress.Show(share, clip.Writer().Bytes());
      return !gStop;
    };
    result = clip.Write(target, show, toStandard ? Clip::NextPath() : next);
  }
  const std::string name = toStandard ? "standard output" : options.output;
  switch (result) {
    case Clip::Result::kNothing:
      recordings->ComplainOfNothing(range, channel);
      return kFound;
    case Clip::Result::kInterrupted:
      Complain("interrupted: %s was not written", name.c_str());
      return kRefused;
    case Clip::Result::kFailed:
      Complain("cannot write %s: %s", name.c_str(), clip.Error().c_str());
      return kRefused;
    case Clip::Result::kDone:
      break;
  }
  std::vector<std::string> paths;
  for (OutputFile& output : outputs) {
    if (Refusal kept = output.Keep()) {
      Complain("%s", kept->c_str());
      return kRefused;
    }
    paths.push_back(output.Path());
  }
  if (toStandard) paths.emplace_back("standard output");
  Report(paths, clip, options, names);
  return MissesMost(clip) ? kFound : kDone;
}

}  // namespace

void AddExportCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<Options>();
  options->range.channel = 0;
  CLI::App* command = app.add_subcommand(
      "export", "Write a span of time of a channel (default 0) as an MP4, QuickTime or Matroska file");
  AddRangeOptions(command, &options->range, true);
  command->add_option("-o,--output", options->output, "The file to write, - for standard output")->required();
  command->add_option("--format", options->format,
                      "mp4, mov or mkv (default: by the file's name; mp4 on standard output)");
  command->add_flag("--force", options->force, "Replace the file when it exists");
  command->callback([options, &context] {
    context.run = [options, &context] { return Export(*options, context.root, context.names); };
  });
}

}  // namespace recorder
