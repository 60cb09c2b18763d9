#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/commands/Command.h"

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // a line is seen when it happens, in a log file too

  CLI::App app{"A loop recorder for cameras and video files", "recorder"};
  recorder::Context context;
  app.add_option("--root", context.root, "Directory that holds disk/NAME for every disk")->required();
  app.set_version_flag("--version", std::string("recorder ") + RECORDER_VERSION);
  app.require_subcommand(1);
  app.fallthrough();  // --root may also stand behind the command
  recorder::AddPrepareCommand(app, context);
  recorder::AddRecordCommand(app, context);
  recorder::AddStatusCommand(app, context);
  recorder::AddCheckCommand(app, context);
  recorder::AddListCommand(app, context);
  recorder::AddPlayListCommand(app, context);
  recorder::AddExportCommand(app, context);
  recorder::AddTimelineCommand(app, context);
  recorder::AddMonthsCommand(app, context);
  recorder::AddMenuCommand(app, context);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
    const std::vector<std::string> remaining = app.remaining();
    std::string what = app.get_subcommands().empty() && !remaining.empty()
                           ? "there is no command " + remaining.front()
                           : error.what();
    std::replace(what.begin(), what.end(), '\n', ' ');
    recorder::Complain("%s (recorder --help shows the options)", what.c_str());
    return recorder::kRefused;
  }
  return context.run();
}
