// The recorder is killed right before each change that it makes to its disks, started again, killed again,
// started again: the three things that every disk keeps to hold, and no recording is lost that was not
// recycled.
//
// CRASH_REPLAY=CHANGE:SECOND in the environment tries that one point only; --gtest_filter picks the scenario.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "tests/support/CrashRunner.h"
#include "tests/support/CrashStage.h"

namespace fs = std::filesystem;

namespace {

struct Scenario {
  const char* name;
  std::function<void(Stage&)> build;         // the state to start from
  std::function<Arguments(Stage&)> command;  // the one that is killed
  const char* landmark;                      // a change that it makes when nothing stops it
  size_t failAt = 0;
  // Tries one point: `second` is where the recovery is killed. Tells whether it came that far.
  std::function<bool(Stage&, const Scenario&, size_t killAt, size_t second)> attempt;
};

// Kills recording at one change and the recovery at another, and lets the next start end by itself.
bool TryRecording(Stage& stage, const Scenario& scenario, size_t killAt, size_t second) {
  const std::set<unsigned long> inodes = InodesOf(stage);
  const std::set<uint32_t> before = StartsIn(stage, "data_", true);
  std::vector<CrashRun> runs;
  runs.push_back(stage.Run(scenario.command(stage), {"", killAt, scenario.failAt}));
  runs.push_back(stage.Run(stage.Record(1, kSecondTime), {"", second}));
  runs.push_back(stage.Run(stage.Record(1, kLastTime)));
  EXPECT_EQ(0, runs.back().status) << runs.back().error;
  ExpectHealthy(stage, inodes);
  ExpectNothingLost(stage, before, runs);
  return runs[1].killed;
}

// Preparing that was cut off is finished or undone by the commands that its refusal names, or by the check once
// there is a pool; cut off before the first file, it is begun anew.
void TryPreparing(Stage& stage, const Scenario& scenario, size_t killAt, const Arguments& way, bool* killed) {
  const std::string disk = stage.Root() + "/disk/a";
  const bool isCheck = way[0] == "check";
  stage.Restore();
  stage.Run(scenario.command(stage), {"", killAt});
  if (fs::exists(disk + "/imf_prealloc") && (!isCheck || fs::exists(disk + "/imf_free"))) {
    const CrashRun refused = stage.Run(scenario.command(stage));
    EXPECT_EQ(2, refused.status);
    EXPECT_NE(std::string::npos,
              refused.error.find("prepare --disk a --resume finishes it, --undo in its place"))
        << refused.error;
    *killed = stage.Run(way, {"", 1 + killAt * 7 % 31}).killed || *killed;
    if (fs::exists(disk + "/imf_prealloc")) {
      EXPECT_EQ(0, stage.Run(way).status) << way.back();
    }
  }
  if (isCheck && !fs::exists(disk + "/imf_free")) return;
  if (!fs::exists(disk + "/imf_free")) {
    EXPECT_EQ(0, stage.Run(scenario.command(stage)).status);
  }
  const std::set<unsigned long> inodes = InodesOf(stage);
  EXPECT_EQ(3u, inodes.size()) << way.back();
  EXPECT_FALSE(fs::exists(disk + "/imf_prealloc"));
  EXPECT_TRUE(fs::exists(disk + "/recorder.disk") && fs::exists(disk + "/recorder.reserve"));
  EXPECT_EQ(0, stage.Run(stage.Record(1, kLastTime)).status);
  ExpectHealthy(stage, inodes);
}

bool TryAllWays(Stage& stage, const Scenario& scenario, size_t killAt, size_t) {
  bool killed = false;
  TryPreparing(stage, scenario, killAt, {"prepare", "--disk", "a", "--resume"}, &killed);
  TryPreparing(stage, scenario, killAt, {"prepare", "--disk", "a", "--undo"}, &killed);
  TryPreparing(stage, scenario, killAt, {"check", "--return-orphans"}, &killed);
  return killed;
}

const Scenario kScenarios[] = {
    {"prepare", [](Stage&) {}, [](Stage& stage) { return stage.Prepare("a", 3); },
     "link /disk/a/imf_free/00000002.imf", 0, TryAllWays},
    {"record", [](Stage& stage) { ASSERT_EQ(0, stage.Run(stage.Prepare("a", 4)).status); },
     [](Stage& stage) { return stage.Record(3, kCrashTime); }, "rename /disk/a/imf_free/00000002.imf", 0,
     TryRecording},
    {"recycle", [](Stage& stage) { stage.BuildFull(); },
     [](Stage& stage) { return stage.Record(3, kCrashTime); }, "unlink /disk/a/data_00000001/", 0,
     TryRecording},
    {"quarantine",
     [](Stage& stage) {
       ASSERT_EQ(0, stage.Run(stage.Prepare("a", 4)).status);
       ASSERT_EQ(0, stage.Run(stage.Record(1, kFillTime)).status);
     },
     [](Stage& stage) { return stage.Record(1, kCrashTime); }, "mkdir /disk/a/imf_error/", 4, TryRecording},
    {"recovery", [](Stage& stage) { stage.BuildCutOff(); },
     [](Stage& stage) { return stage.Record(1, kCrashTime); },
     "rename /disk/b/data_00000002/.search.fdb.rebuild", 0, TryRecording},
};

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

class Crash : public testing::TestWithParam<Scenario> {};

TEST_P(Crash, LosesNothing) {
  const Scenario& scenario = GetParam();
  const std::string whyNot = WhyNotTraceable();
  if (!whyNot.empty()) GTEST_SKIP() << whyNot;
#ifndef __x86_64__
  if (scenario.failAt != 0) GTEST_SKIP() << "calls can't be made to fail on this machine";
#endif
  size_t replayAt = 0;
  size_t replaySecond = 0;
  if (const char* replay = std::getenv("CRASH_REPLAY")) {
    ASSERT_EQ(2, std::sscanf(replay, "%zu:%zu", &replayAt, &replaySecond));
  }

  Stage stage;
  for (const int segments : {1, 3, 6}) {
    if (!stage.MakeInput(segments)) GTEST_SKIP() << "ffmpeg is not there to make an input";
  }
  fs::create_directory(stage.Root() + "/disk");
  scenario.build(stage);
  ASSERT_FALSE(HasFatalFailure());
  stage.Save();
  const CrashRun whole = stage.Run(scenario.command(stage), {"", 0, scenario.failAt});
  ASSERT_EQ(0, whole.status) << whole.error;
  ASSERT_NE(0, std::count(whole.changes.begin(), whole.changes.end(), scenario.landmark));
  // The recovery is killed at another place each time; 61 has no divisor in common with the usual counts.
  const size_t spread = stage.Run(stage.Record(1, kSecondTime)).changes.size();

  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  size_t points = 0;
  size_t killedTwice = 0;
  int failures = 0;
  for (size_t killAt = 1; killAt <= whole.changes.size() && failures < 5; ++killAt) {
    size_t second = 1 + killAt * 61 % spread;
    if (replayAt != 0) {
      killAt = replayAt;
      second = replaySecond;
    }
    const int before = result.total_part_count();
    stage.Restore();
    if (scenario.attempt(stage, scenario, killAt, second)) ++killedTwice;
    ++points;
    if (result.total_part_count() != before) {
      ++failures;
      std::printf("FAILED; again: CRASH_REPLAY=%zu:%zu crash_test --gtest_filter='*%s'\n", killAt, second,
                  scenario.name);
    }
    if (replayAt != 0) break;
    if (points % 50 == 0) std::printf("%s: %zu of %zu points\n", scenario.name, points, whole.changes.size());
  }
  std::printf(
      "%s: killed at %zu points, one before each change to the disks, and at %zu of them in the recovery too\n",
      scenario.name, points, killedTwice);
}

INSTANTIATE_TEST_SUITE_P(Recorder, Crash, testing::ValuesIn(kScenarios),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace
