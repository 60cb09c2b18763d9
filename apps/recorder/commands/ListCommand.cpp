// recorder list: the recordings of a span of time. Looks only.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/Coverage.h"
#include "apps/recorder/looking/LiveHealth.h"
#include "apps/recorder/looking/Recordings.h"

namespace recorder {

namespace {

int List(RangeOptions options, std::string root, const ChannelNames& configured) {
  const ChannelNames names = NamesIn(root, configured);
  Range range;
  Disks disks;
  Refusal refusal = ChooseChannel(names, &options);
  if (!refusal) refusal = ParseRange(options, &range);
  if (!refusal) refusal = OpenToLook(&root, &disks);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const Recordings recordings(disks);
  if (options.channel != kAnyChannel) {
    if (Refusal unknown = RefuseChannel(options.channel, recordings.Channels())) {
      Complain("%s", unknown->c_str());
      return kRefused;
    }
  }
  // A long list is not written line by line where nobody watches it.
  static char buffer[1 << 16];  // glibc makes one of its own size, whatever is asked for
  if (isatty(STDOUT_FILENO) == 0) std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  const Coverage coverage(disks, range);
  bool isAny = false;
  recordings.ForEach(range, options.channel, [&](const Recording& recording) {
    const std::vector<PictureSpan>& spans = coverage.Of(recording);
    if (options.channel != kAnyChannel && !HasPictures(spans, options.channel, range)) return;
    isAny = true;
    PrintRecording(recording, PartlyCovered(recording, spans), options.json, "", names);
  });
  if (isAny) return kDone;
  recordings.ComplainOfNothing(range, options.channel);
  return kFound;
}

}  // namespace

void AddListCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<RangeOptions>();
  CLI::App* command = app.add_subcommand("list", "List recordings (default: all of them)");
  AddRangeOptions(command, options.get(), false);
  command->callback([options, &context] {
    context.run = [options, &context] { return List(*options, context.root, context.names); };
  });
}

}  // namespace recorder
