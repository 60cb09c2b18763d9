// recorder prepare: lays down a disk's record files.
#include <CLI/CLI.hpp>
#include <memory>

#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/Preparation.h"

namespace recorder {

void AddPrepareCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<PrepareOptions>();
  CLI::App* command =
      app.add_subcommand("prepare", "Lay down the record files of a new disk at ROOT/disk/NAME");
  command->add_option("--disk", options->disk, "Name of the disk, at most 8 bytes")->required();
  CLI::Option* size = command->add_option("--size", options->size, "Size of one record file, as 64M or 1G");
  command
      ->add_option("--for", options->bitRate,
                   "Bit rate of all channels together, as 8M, from which the size is reckoned")
      ->excludes(size);
  command->add_option("--segment", options->segment, "Seconds in a file, for --for (default 60)");
  CLI::Option* count = command->add_option("--count", options->count, "Number of record files");
  command->add_flag("--fill", options->fill, "As many record files as fit")->excludes(count);
  command->add_option("--reserve", options->reserve,
                      "What is kept free of record files, as 1G (default 1 %, at least 64M)");
  command->add_flag("--on-system-disk", options->onSystemDisk,
                    "Also when the directory lies on the file system of /");
  CLI::Option* resume = command->add_flag("--resume", options->resume, "Finish a preparation that was cut off");
  command->add_flag("--undo", options->undo, "Take back a preparation that was cut off")->excludes(resume);
  command->callback(
      [options, &context] { context.run = [options, &context] { return Prepare(*options, context.root); }; });
}

}  // namespace recorder
