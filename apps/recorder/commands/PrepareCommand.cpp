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
  command->add_option("--size", options->size, "Size of one record file, as 64M or 1G")->required();
  command->add_option("--count", options->count, "Number of record files")->required();
  command->callback(
      [options, &context] { context.run = [options, &context] { return Prepare(*options, context.root); }; });
}

}  // namespace recorder
