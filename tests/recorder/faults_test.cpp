// Every call by which the recorder reads or changes its disks fails: once, as a sick disk lets one fail, or
// from one on for good, as a disk that dies. Nothing may crash or hang; recording goes on with what is left;
// and once the disk is well again every disk holds what it keeps to and no recording is lost.
//
// FAULTS_TEST=all in the environment tries every call instead of a sample, FAULTS_TEST=SEED another sample,
// FAULTS_TEST=CALL:ERROR:CALLS one point (--gtest_filter picks the scenario); FAULTS_SAMPLE=N takes a larger
// one.
#include <algorithm>
#include <cstring>
#include <random>

#include "tests/support/CrashStage.h"

namespace {

constexpr size_t kSample = 8;  // points of each kind and scenario, unless the environment says otherwise
constexpr size_t kForGood = SIZE_MAX;

struct Point {
  size_t call;  // from 1
  int error;
  size_t calls;  // that fail from there on
};

void BuildHalf(Stage& stage) {
  ASSERT_EQ(0, stage.Run(stage.Prepare("a", 4)).status);
  ASSERT_EQ(0, stage.Run(stage.Prepare("b", 4)).status);
  ASSERT_EQ(0, stage.Run(stage.Record(3, kFillTime)).status);
}

const Scenario kScenarios[] = {
    {"prepare", &Stage::BuildFull, Preparing("c", 3)},
    {"record", BuildHalf, Recording(3, kCrashTime)},
    {"recycle", &Stage::BuildFull, Recording(3, kCrashTime)},
    {"quarantine", &Stage::BuildFull, Recording(1, kCrashTime), 4},
    {"clock", BuildHalf, Recording(1, kFillTime - 1000)},
    {"recovery", &Stage::BuildCutOff, Recording(1, kCrashTime)},
    {"check", &Stage::BuildCutOff, [](Stage&) { return Arguments{"check"}; }},
    {"repair", &Stage::BuildCutOff,
     [](Stage&) {
       return Arguments{"check", "--repair-names", "--rebuild-index", "--return-orphans"};
     }},
};

bool MayNeedSpace(const std::string& call) {
  const std::set<std::string> all = {"open",    "creat", "rename", "link",      "mkdir",
                                     "symlink", "write", "writev", "fallocate", "sync"};
  return all.count(call.substr(0, call.find(' '))) != 0;
}

bool IsOnDisk(const std::string& call) { return call.find(" /disk/") != std::string::npos; }

// One point of each call and kind of fault, or a sample of them. Of the same call made many times, as when a
// search database is read, the first two and the last count.
std::vector<Point> ChoosePoints(const Scenario& scenario, const std::vector<std::string>& calls) {
  const char* const wish = std::getenv("FAULTS_TEST");
  Point point = {};
  if (wish != nullptr && std::sscanf(wish, "%zu:%d:%zu", &point.call, &point.error, &point.calls) == 3)
    return {point};
  std::vector<Point> once, space, forGood, chosen;
  std::map<std::string, std::vector<size_t>> places;
  for (size_t call = 1; call <= calls.size(); ++call) places[calls[call - 1]].push_back(call);
  for (size_t call = 1; call <= calls.size(); ++call) {
    const std::string& what = calls[call - 1];
    const std::vector<size_t>& same = places[what];
    if (call != same.front() && call != same.back() && call != same[1]) continue;
    if (what.find(" /in") != std::string::npos) continue;  // the input's
    once.push_back({call, EIO, 1});
    if (MayNeedSpace(what)) space.push_back({call, ENOSPC, 1});
    if (IsOnDisk(what)) forGood.push_back({call, EIO, kForGood});
  }
  const bool all = wish != nullptr && std::strcmp(wish, "all") == 0;
  const unsigned long seed = wish != nullptr ? std::strtoul(wish, nullptr, 10) : std::random_device()();
  const char* const size = std::getenv("FAULTS_SAMPLE");
  const size_t sample = size != nullptr ? std::stoul(size) : kSample;
  std::mt19937 random(seed);
  for (std::vector<Point>* kind : {&once, &space, &forGood}) {
    if (!all) std::shuffle(kind->begin(), kind->end(), random);
    if (!all && kind->size() > sample) kind->resize(sample);
    chosen.insert(chosen.end(), kind->begin(), kind->end());
  }
  std::printf("%s: %zu calls, %zu points; %s%s\n", scenario.name, calls.size(), chosen.size(),
              all ? "all of them" : "again: FAULTS_TEST=", all ? "" : std::to_string(seed).c_str());
  return chosen;
}

// What a person does after a preparation that failed: what its messages name.
void FinishPreparing(Stage& stage, const Arguments& prepare) {
  const std::string disk = stage.Root() + "/disk/c";
  if (fs::exists(disk + "/imf_prealloc") && stage.Run({"prepare", "--disk", "c", "--resume"}).status != 0) {
    EXPECT_EQ(0, stage.Run({"prepare", "--disk", "c", "--undo"}).status);
  }
  if (!fs::exists(disk + "/imf_free")) {
    EXPECT_EQ(0, stage.Run(prepare).status);
  }
}

class Faults : public testing::TestWithParam<Scenario> {
 protected:
  // Returns what the recorder said.
  std::string Try(Stage& stage, const Scenario& scenario, const Point& point) {
    std::set<unsigned long> inodes = InodesOf(stage);
    const std::set<uint32_t> before = StartsIn(stage, "data_", true);
    CrashPlan plan = PlanOf(scenario);
    std::tie(plan.failAt, plan.error, plan.failCalls) = std::tie(point.call, point.error, point.calls);
    std::vector<CrashRun> runs;
    const Arguments command = scenario.command(stage);
    runs.push_back(stage.Run(command, plan));
    EXPECT_FALSE(runs[0].timedOut) << "it hangs";
    EXPECT_LE(0, runs[0].status) << "it crashed";
    // A root directory that can't be locked is refused; what fails on a disk, or once in finding disks, ends
    // nothing.
    const std::string call = point.call <= runs[0].calls.size() ? runs[0].calls[point.call - 1] : "";
    const bool finds = point.calls == 1 && call.size() > 6 && call.substr(call.size() - 6) == " /disk";
    const bool goesOn = command.front() == "record" && (IsOnDisk(call) || finds);
    EXPECT_TRUE(!goesOn || runs[0].status == 0) << runs[0].error;
    if (command.front() == "prepare") {
      FinishPreparing(stage, command);
      inodes = InodesOf(stage);
      EXPECT_EQ(9u, inodes.size());
    }
    runs.push_back(stage.Run(stage.Record(1, kSecondTime)));
    runs.push_back(stage.Run(stage.Record(1, kLastTime)));
    EXPECT_EQ(0, runs.back().status) << runs.back().error;
    ExpectHealthy(stage, inodes);
    // The oldest may be on a disk that was set aside.
    const bool allDisks = runs[0].error.find(" is set aside: ") == std::string::npos && point.calls == 1;
    ExpectNothingLost(stage, before, runs, allDisks);
    return runs[0].out + runs[0].error;
  }
  static CrashPlan PlanOf(const Scenario& scenario) {
    return {"", 0, scenario.failPacketAt, true, 0, 1, EIO, 60};
  }
};

TEST_P(Faults, CostNothing) {
  const Scenario& scenario = GetParam();
  const std::string whyNot = WhyNotTraceable(true);
  if (!whyNot.empty()) GTEST_SKIP() << whyNot;
  Stage stage;
  scenario.build(stage);
  ASSERT_FALSE(HasFatalFailure());
  stage.Save();
  const CrashRun whole = stage.Run(scenario.command(stage), PlanOf(scenario));
  ASSERT_LE(0, whole.status) << whole.error;
  ASSERT_LT(10u, whole.calls.size());

  const std::vector<Point> points = ChoosePoints(scenario, whole.calls);
  int failures = 0;
  for (size_t i = 0; i < points.size() && failures < 5; ++i) {
    const auto& [call, error, calls] = points[i];
    std::string said;
    stage.Restore();
    if (!Passes([&] { said = Try(stage, scenario, points[i]); })) {
      ++failures;
      std::printf("%sFAILED at %s; again: FAULTS_TEST=%zu:%d:%zu faults_test --gtest_filter='*%s'\n",
                  said.c_str(), whole.calls[call - 1].c_str(), call, error, calls, scenario.name);
    }
    if (i % 50 == 49) std::printf("%s: %zu of %zu points\n", scenario.name, i + 1, points.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Recorder, Faults, testing::ValuesIn(kScenarios), NameOf);

}  // namespace
