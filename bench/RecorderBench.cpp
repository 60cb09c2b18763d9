// What the recorder's commands that only look cost over many recordings, against listing their directories.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <vector>

#include "bench/Benches.h"
#include "bench/Rounds.h"
#include "bench/Sqlite.h"

extern char** environ;

namespace bench {

namespace {

// What it prints goes nowhere. It has to succeed.
void Run(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& each : command) arguments.push_back(const_cast<char*>(each.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  errno = posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  int status = 0;
  if (errno != 0 || waitpid(child, &status, 0) != child || status != 0) Stop(command[0]);
  posix_spawn_file_actions_destroy(&actions);
}

}  // namespace

void MeasureRecorder(const Settings& settings, Report* report) {
  report->Begin("The recorder's commands");
  constexpr uint32_t kBase = 1600000000;
  constexpr int kDirectories = 20;
  constexpr int kSeconds = 60;
  constexpr int kChannels = 4;
  const int each = settings.quick ? 1000 : 5000;
  Stage stage(settings);
  const std::string disks[] = {stage.MakeDisk("sda1"), stage.MakeDisk("sdb1")};
  for (int index = 1; index <= kDirectories; ++index) {
    const std::string directory = Stage::MakeDirectory(disks[index % 2], index);
    const uint32_t start = kBase + static_cast<uint32_t>(index * each * kSeconds);
    MakeRecordings(directory, start, each, kSeconds);
    MakeSearchDatabase(directory, start, each, kSeconds, kChannels);
  }
  const std::string recorder = settings.programs + "/recorder";
  const std::vector<std::vector<std::string>> commands = {
      {recorder, "--root", stage.Root(), "list"},
      {recorder, "--root", stage.Root(), "list", "--channel", "1"},
      {recorder, "--root", stage.Root(), "timeline"},
  };
  std::vector<Contender> contenders = {{1, [&] { Run({"ls", "-R", stage.Root()}); }}};
  for (const std::vector<std::string>& command : commands)
    contenders.push_back({1, [&command] { Run(command); }});
  const Times times = TakeTurns(settings.quick ? 3 : 7, contenders);
  const char* names[] = {"list", "list --channel", "timeline"};
  const std::string of = " of " + std::to_string(kDirectories * each) + " recordings";
  for (size_t i = 0; i < commands.size(); ++i) {
    report->Add({names[i] + of, "s", times.Median(i + 1), "ls -R", times.Median(0), times.Ratio(i + 1, 0),
                 i == 0 ? Goal::kNone : Goal::kRatioAtMost, 3});
  }
}

}  // namespace bench
