// The recorder is killed right before each change that it makes to its disks, started again, killed again,
// started again: the three things that every disk keeps to hold, and no recording is lost that was not
// recycled.
//
// CRASH_REPLAY=CHANGE in the environment tries that one point only; --gtest_filter picks the scenario.
#include <algorithm>

#include "tests/support/CrashStage.h"

namespace {

// Kills recording at one change and the recovery at another, and lets the next start end by itself.
bool TryRecording(Stage& stage, const Scenario& scenario, size_t killAt, size_t second) {
  const std::set<unsigned long> inodes = InodesOf(stage);
  const std::set<uint32_t> before = StartsIn(stage, "data_", true);
  std::vector<CrashRun> runs;
  runs.push_back(stage.Run(scenario.command(stage), {"", killAt, scenario.failPacketAt}));
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
    EXPECT_TRUE(Has(refused.error, "prepare --disk a --resume finishes it, --undo in its place"));
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

void BuildOne(Stage& stage) { ASSERT_EQ(0, stage.Run(stage.Prepare("a", 4)).status); }

// With a change that each makes when nothing stops it.
const Scenario kScenarios[] = {
    {"prepare", [](Stage&) {}, Preparing("a", 3), 0, "link /disk/a/imf_free/00000002.imf"},
    {"record", BuildOne, Recording(3, kCrashTime), 0, "rename /disk/a/imf_free/00000002.imf"},
    {"recycle", &Stage::BuildFull, Recording(3, kCrashTime), 0, "unlink /disk/a/data_00000001/"},
    {"quarantine",
     [](Stage& stage) {
       BuildOne(stage);
       ASSERT_EQ(0, stage.Run(stage.Record(1, kFillTime)).status);
     },
     Recording(1, kCrashTime), 4, "mkdir /disk/a/imf_error/"},
    {"recovery", &Stage::BuildCutOff, Recording(1, kCrashTime), 0,
     "rename /disk/b/data_00000002/.search.fdb.rebuild"},
};

class Crash : public testing::TestWithParam<Scenario> {};

TEST_P(Crash, LosesNothing) {
  const Scenario& scenario = GetParam();
  const std::string whyNot = WhyNotTraceable(scenario.failPacketAt != 0);
  if (!whyNot.empty()) GTEST_SKIP() << whyNot;

  Stage stage;
  scenario.build(stage);
  ASSERT_FALSE(HasFatalFailure());
  stage.Save();
  const CrashRun whole = stage.Run(scenario.command(stage), {"", 0, scenario.failPacketAt});
  ASSERT_EQ(0, whole.status) << whole.error;
  ASSERT_NE(0, std::count(whole.changes.begin(), whole.changes.end(), scenario.landmark));
  // The recovery is killed at another place each time; 61 has no divisor in common with the usual counts.
  const size_t spread = stage.Run(stage.Record(1, kSecondTime)).changes.size();

  const char* const replay = std::getenv("CRASH_REPLAY");
  const size_t first = replay != nullptr ? std::stoul(replay) : 1;
  const size_t last = replay != nullptr ? first : whole.changes.size();
  size_t points = 0, killedTwice = 0;
  int failures = 0;
  for (size_t killAt = first; killAt <= last && failures < 5; ++killAt) {
    const size_t second = 1 + killAt * 61 % spread;
    stage.Restore();
    const auto attempt = scenario.name == std::string("prepare") ? TryAllWays : TryRecording;
    ++points;
    if (!Passes([&] { killedTwice += attempt(stage, scenario, killAt, second); })) {
      ++failures;
      std::printf("FAILED; again: CRASH_REPLAY=%zu crash_test --gtest_filter='*%s'\n", killAt, scenario.name);
    }
    if (points % 50 == 0) std::printf("%s: %zu of %zu points\n", scenario.name, points, whole.changes.size());
  }
  std::printf(
      "%s: killed at %zu points, one before each change to the disks, and at %zu of them in the recovery too\n",
      scenario.name, points, killedTwice);
}

INSTANTIATE_TEST_SUITE_P(Recorder, Crash, testing::ValuesIn(kScenarios), NameOf);

}  // namespace
