// recorder record: records any number of inputs into the disks' files, one channel each.
#include <CLI/CLI.hpp>
#include <memory>

#include "apps/recorder/commands/Command.h"
#include "apps/recorder/recording/RecordSession.h"

namespace recorder {

void AddRecordCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<RecordOptions>();
  CLI::App* command =
      app.add_subcommand("record", "Record inputs, one channel each, until SIGINT, SIGTERM or SIGHUP");
  command
      ->add_option(
          "--input", options->inputs,
          "File, camera or stream, - for standard input: [CHANNEL:][NAME=]ADDRESS; channels 0, 1, ... in "
          "this order unless their numbers are given")
      ->allow_extra_args(false);
  command->add_option("--disk", options->disks, "Disk to record to (default: every prepared one)")
      ->allow_extra_args(false);
  command->add_option("--segment", options->segment, "Seconds in a file (default 60)");
  command->add_flag("--overwrite,!--no-overwrite", options->overwrite,
                    "Recycle the oldest recordings when every file is in use (default), or stop then");
  command->add_option("--keep", options->keep,
                      "For how long recordings are kept at most: 7d, 36h, 36 (hours); default 0: no limit");
  command->add_flag("--trust-clock", options->trustClock,
                    "Let --keep recycle although nothing bears out what the clock says");
  command->add_option(
      "--retry", options->retry,
      "Seconds between two looks at disks that are not used, and two lines about them (default 60)");
  command->add_option(
      "--clock", options->clock,
      "wall: pictures are recorded at the time of day at which they were taken (default); stream: at "
      "--start plus their own time, as fast as the disk takes them");
  command->add_option("--start", options->start,
                      "Time at which --clock stream starts: ISO 8601, or epoch seconds");
  command->add_option("--checkpoint", options->checkpoint, "Seconds that a power cut may cost (default 2)");
  command->add_flag("--audio,!--no-audio", options->audio,
                    "Record the inputs' sound beside their pictures (default), or pictures only");
  command->add_flag("--standby", options->standby,
                    "Wait while another recorder has the disks, and take over when it is gone");
  command->add_option("--input-timeout", options->inputTimeout,
                      "Seconds after which a network input that is silent is connected to again (default 10)");
  command->add_option(
      "--camera-clock", options->cameraClock,
      "Channels whose cameras know the time of day, as 0,2-3, front or all: what they say of it is recorded");
  command->add_option(
      "--on-event", options->onEvent,
      "Command to run when something happens, the event as JSON on its standard input; no shell");
  context.record = options;
  command->callback(
      [options, &context] { context.run = [options, &context] { return Record(*options, context.root); }; });
}

}  // namespace recorder
