#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/commands/ConfigFile.h"

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // a line is seen when it happens, in a log file too

  CLI::App app{"A loop recorder for cameras and video files", "recorder"};
  recorder::Context context;
  app.add_option("--root", context.root, "Directory that holds disk/NAME for every disk");
  app.add_option("--config", context.config,
                 "File of settings, the options of record (default /etc/recorder.conf, when it is there)")
      ->configurable(false);
  app.set_version_flag("--version", std::string("recorder ") + RECORDER_VERSION);
  app.require_subcommand(1);
  app.fallthrough();  // --root may also stand behind the command
  recorder::AddPrepareCommand(app, context);
  recorder::AddRecordCommand(app, context);
  recorder::AddConfigCommand(app, context);
  recorder::AddStatusCommand(app, context);
  recorder::AddCheckCommand(app, context);
  recorder::AddListCommand(app, context);
  recorder::AddPlayListCommand(app, context);
  recorder::AddExportCommand(app, context);
  recorder::AddTimelineCommand(app, context);
  recorder::AddMonthsCommand(app, context);
  recorder::AddMenuCommand(app, context);

  try {
    recorder::Refusal refusal = recorder::RefuseEmptyValues(std::vector<std::string>(argv + 1, argv + argc));
    if (!refusal) app.parse(argc, argv);
    if (!refusal) refusal = recorder::RefuseEmptyValues(app);
    if (refusal) throw CLI::ArgumentMismatch(*refusal);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
    const std::vector<std::string> remaining = app.remaining();
    const bool isCommand = app.get_subcommands().empty() && !remaining.empty();
    std::string what = isCommand ? "there is no command " + remaining.front() : error.what();
    if (!isCommand && dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
      what = "not expected: " + CLI::detail::join(app.remaining(true), " ");  // what() turns them round
    }
    std::replace(what.begin(), what.end(), '\n', ' ');
    recorder::Complain("%s (recorder --help shows the options)", what.c_str());
    return recorder::kRefused;
  }
  context.problems = recorder::ApplyConfig(app, context);
  if (!context.looksAtConfig) {
    for (const std::string& problem : context.problems) recorder::Complain("%s", problem.c_str());
    if (!context.problems.empty()) return recorder::kRefused;
    if (context.root.empty()) {
      recorder::Complain("--root is required (recorder --help shows the options)");
      return recorder::kRefused;
    }
  }
  const int status = context.run();
  // A list that is cut short because the disk that it goes to is full must not look complete.
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  recorder::Complain("cannot write all of the output");
  return recorder::kRefused;
}
