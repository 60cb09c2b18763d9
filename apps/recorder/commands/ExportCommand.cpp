// recorder export: a span of time of one channel as an MP4 file, without re-encoding. Looks only.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cinttypes>
#include <cstdio>
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
#include "apps/recorder/looking/Recordings.h"

extern "C" {
#include <libavutil/log.h>
}

namespace recorder {

namespace {

struct Options {
  RangeOptions range;
  std::string output;
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

void Report(const std::string& path, int channel, const Clip& clip, bool json) {
  for (const Clip::Missing& missing : clip.AllMissing()) {
    Complain("not in the clip: %s to %s (%s)", FormatExactTime(missing.from).c_str(),
             FormatExactTime(missing.to).c_str(), missing.reason.c_str());
  }
  const ClipWriter& writer = clip.Writer();
  if (!json) {
    Print("%s: channel %d, %s to %s, %.2f s, %" PRId64 " pictures, %s\n", path.c_str(), channel,
          FormatExactTime(clip.From()).c_str(), FormatExactTime(clip.To()).c_str(), writer.Seconds(),
          writer.Packets(), FormatSize(writer.Bytes()).c_str());
    return;
  }
  nlohmann::ordered_json line;
  line["output"] = path;
  line["channel"] = channel;
  line["start"] = FormatExactTime(clip.From());
  line["end"] = FormatExactTime(clip.To());
  line["seconds"] = writer.Seconds();
  line["pictures"] = writer.Packets();
  line["bytes"] = writer.Bytes();
  line["missing"] = nlohmann::ordered_json::array();
  for (const Clip::Missing& missing : clip.AllMissing()) {
    line["missing"].push_back({{"start", FormatExactTime(missing.from)},
                               {"end", FormatExactTime(missing.to)},
                               {"reason", missing.reason}});
  }
  // A path may hold any bytes.
  PrintLine(line);
}

int Export(const Options& options, std::string root) {
  const int channel = options.range.channel;
  Range range;
  Disks disks;
  std::optional<Recordings> recordings;
  OutputFile output;
  Refusal refusal = ParseRange(options.range, &range);
  if (!refusal) refusal = OpenToLook(&root, &disks);
  if (!refusal) {
    recordings.emplace(disks);
    refusal = RefuseChannel(channel, recordings->Channels());
  }
  if (!refusal) refusal = output.Create(options.output, options.force, disks);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }

  StopOnSignals();
  av_log_set_level(AV_LOG_QUIET);  // what matters of it is said in lines of our own
  Clip clip(disks, *recordings, channel, range);
  Clip::Result result;
  {
    ExportProgress progress;
    result = clip.Write(output.TemporaryPath(), [&](double share) {
      progress.Show(share, clip.Writer().Bytes());
      return !gStop;
    });
  }
  switch (result) {
    case Clip::Result::kNothing:
      recordings->ComplainOfNothing(range, channel);
      return kFound;
    case Clip::Result::kInterrupted:
      Complain("interrupted: %s was not written", options.output.c_str());
      return kRefused;
    case Clip::Result::kFailed:
      Complain("cannot write %s: %s", options.output.c_str(), clip.Error().c_str());
      return kRefused;
    case Clip::Result::kDone:
      break;
  }
  if (Refusal kept = output.Keep()) {
    Complain("%s", kept->c_str());
    return kRefused;
  }
  Report(options.output, channel, clip, options.range.json);
  return kDone;
}

}  // namespace

void AddExportCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<Options>();
  options->range.channel = 0;
  CLI::App* command =
      app.add_subcommand("export", "Write a span of time of a channel (default 0) as an MP4 file");
  AddRangeOptions(command, &options->range, true);
  command->add_option("-o,--output", options->output, "The file to write")->required();
  command->add_flag("--force", options->force, "Replace the file when it exists");
  command->callback(
      [options, &context] { context.run = [options, &context] { return Export(*options, context.root); }; });
}

}  // namespace recorder
