// The recorder's commands. Each lives in a file of its own, adds its options to the command line, and leaves
// what is to be done in the context; main() runs it once the command line is known to be sound.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apps/recorder/base/ExitStatus.h"
#include "apps/recorder/base/InputList.h"
#include "apps/recorder/disks/Refusals.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace recorder {

struct RecordOptions;

struct Context {
  std::string root;          // as given; Disks.h makes an absolute path of it
  std::function<int()> run;  // set by the command that was chosen; its result is the exit status

  std::string config;                     // path of the configuration file, empty: there is none
  std::vector<std::string> problems;      // what is wrong with it
  bool looksAtConfig = false;             // the command runs all the same
  ChannelNames names;                     // as configured
  std::vector<std::string> disks;         // the same; empty: all there are
  std::shared_ptr<RecordOptions> record;  // the options of record, set by it
};

// An empty value, as a script's unset variable gives one, is not the same as none: "" would be channel 0, or
// all that is recorded.
bool IsEmptyByMistake(const CLI::Option& option, const std::vector<std::string>& values);
Refusal RefuseEmptyValues(const CLI::App& app);
// "--since=" would take the next argument for its value. To be asked before the command line is parsed.
Refusal RefuseEmptyValues(const std::vector<std::string>& arguments);

void AddPrepareCommand(CLI::App& app, Context& context);
void AddRecordCommand(CLI::App& app, Context& context);
// Behind AddRecordCommand().
void AddConfigCommand(CLI::App& app, Context& context);
void AddStatusCommand(CLI::App& app, Context& context);
void AddCheckCommand(CLI::App& app, Context& context);
void AddListCommand(CLI::App& app, Context& context);
void AddPlayListCommand(CLI::App& app, Context& context);
void AddExportCommand(CLI::App& app, Context& context);
void AddTimelineCommand(CLI::App& app, Context& context);
void AddMonthsCommand(CLI::App& app, Context& context);
void AddMenuCommand(CLI::App& app, Context& context);

}  // namespace recorder
