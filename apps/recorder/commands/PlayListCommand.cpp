// recorder play-list: the recording of a moment, and its neighbours in the order of playback over all disks.
// Looks only.
#include <CLI/CLI.hpp>
#include <list>
#include <memory>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/LiveHealth.h"
#include "apps/recorder/looking/Recordings.h"
#include "fmgr/FmgrFileManager.h"

namespace recorder {

namespace {

struct Options {
  std::string at;
  int limit = 0;  // each way, 0: all
  bool json = false;
};

int PlayList(const Options& options, std::string root, const ChannelNames& configured) {
  const ChannelNames names = NamesIn(root, configured);
  int64_t at = 0;
  Disks disks;
  Refusal refusal = ParseMoment("--at", options.at, &at);
  if (!refusal && options.limit < 0) refusal = "--limit takes 0 (all) or the number of recordings each way";
  if (!refusal) refusal = OpenToLook(&root, &disks);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const Recordings recordings(disks);
  std::string path;
  if (disks.Manager()->GetFilePath(static_cast<int>(at / kMicros), path, 1) != FMGR_DONE) {
    recordings.ComplainOfNothing({at, kLatestTime * kMicros}, kAnyChannel);
    return kFound;
  }
  const Recording first = recordings.Describe(path);
  std::list<Recording> list = {first};
  const auto more = [&](size_t count) {
    return options.limit == 0 || count < static_cast<size_t>(options.limit);
  };
  size_t before = 0;
  for (auto each = recordings.Previous(first); each && more(before);
       each = recordings.Previous(*each), before++) {
    list.push_front(*each);
  }
  size_t after = 0;
  for (auto each = recordings.Next(first); each && more(after); each = recordings.Next(*each), after++) {
    list.push_back(*each);
  }
  const bool covers = first.start * kMicros <= at;
  for (const Recording& each : list) {
    const bool isFirst = each.path == first.path;
    PrintRecording(each, {}, options.json,
                   !isFirst ? ""
                   : covers ? "plays first"
                            : "plays first, after a gap",
                   names);
  }
  return kDone;
}

}  // namespace

void AddPlayListCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<Options>();
  CLI::App* command =
      app.add_subcommand("play-list", "Show which recording covers a moment and what plays next");
  command->add_option("--at", options->at, "The moment: ISO 8601, epoch seconds, or as now-2h")->required();
  command->add_option("--limit", options->limit, "Recordings each way (default 0: all)");
  command->add_flag("--json", options->json, "One JSON object a line");
  command->callback([options, &context] {
    context.run = [options, &context] { return PlayList(*options, context.root, context.names); };
  });
}

}  // namespace recorder
