// The recorder is killed right before each change that it makes to its disks, started again, killed again,
// started again: the three things that every disk keeps to hold, and no recording is lost that was not
// recycled.
//
// CRASH_REPLAY=CHANGE:SECOND in the environment tries that one point only; --gtest_filter picks the scenario.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>

#include "apps/recorder/check/Checker.h"
#include "platform/host/imf/RecordName.h"
#include "tests/support/CrashRunner.h"
#include "tests/support/TestDisk.h"

namespace fs = std::filesystem;

namespace {

constexpr int kFillTime = 1700000000;  // of what is on the disks before
constexpr int kCrashTime = 1700001000;
constexpr int kSecondTime = 1700002000;
constexpr int kLastTime = 1700003000;

using Arguments = std::vector<std::string>;

// A root directory, and a copy of it to start over from. Both go with the object.
class Stage {
 public:
  Stage() {
    char path[] = "/tmp/fm.XXXXXX";
    if (mkdtemp(path) == nullptr) std::abort();
    mRoot = path;
    mCopy = mRoot + ".s";
  }
  ~Stage() {
    fs::remove_all(mRoot);
    fs::remove_all(mCopy);
  }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  void Save() { Copy(mRoot, mCopy); }
  void Restore() { Copy(mCopy, mRoot); }

  const std::string& Root() const { return mRoot; }
  std::vector<std::string> Disks() const {
    std::vector<std::string> disks;
    for (const std::string& name : NamesIn(mRoot + "/disk")) disks.push_back(mRoot + "/disk/" + name);
    return disks;
  }
  // Two seconds a segment of two seconds, four pictures.
  std::string Input(int segments) const { return mRoot + "/in" + std::to_string(segments) + ".mp4"; }
  bool MakeInput(int segments) const {
    const std::string command =
        "ffmpeg -v error -f lavfi -i testsrc=size=64x64:rate=2:duration=" + std::to_string(2 * segments) +
        " -c:v mpeg4 -g 2 " + Input(segments);
    return std::system(command.c_str()) == 0;
  }

  CrashRun Run(Arguments arguments, size_t killAt = 0, size_t failAt = 0) const {
    const Arguments front = {RECORDER_PROGRAM, "--root", mRoot};
    arguments.insert(arguments.begin(), front.begin(), front.end());
    return RunAndCrash(arguments, {mRoot, killAt, failAt});
  }
  Arguments Prepare(const std::string& disk, int count) const {
    return {"prepare", "--disk", disk, "--size", "1M", "--count", std::to_string(count)};
  }
  Arguments Record(int segments, int start) const {
    return {"record",  "--input", Input(segments), "--segment",          "2",
            "--clock", "stream",  "--start",       std::to_string(start)};
  }

 private:
  static void Copy(const std::string& from, const std::string& to) {
    const std::string command = "rm -rf " + to + " && cp -a --sparse=always " + from + " " + to;
    if (std::system(command.c_str()) != 0) std::abort();
  }

  std::string mRoot;
  std::string mCopy;
};

// Start of the recording whose path ends `text`; 0: none, or one in progress that isn't asked for.
uint32_t StartOf(const std::string& text, bool unfinishedToo = true) {
  RecordName record = {};
  const bool is = ParseRecordName(text.substr(text.rfind('/') + 1), &record);
  return is && (unfinishedToo || record.endTime != 0) ? record.startTime : 0;
}

// Starts of the recordings below directories whose names begin with `place`.
std::set<uint32_t> StartsIn(const Stage& stage, const std::string& place, bool unfinishedToo) {
  std::set<uint32_t> starts;
  for (const std::string& disk : stage.Disks()) {
    for (const std::string& directory : NamesIn(disk)) {
      if (directory.rfind(place, 0) != 0) continue;
      for (const std::string& name : NamesIn(disk + "/" + directory))
        starts.insert(StartOf(name, unfinishedToo));
    }
  }
  starts.erase(0);
  return starts;
}

std::set<unsigned long> InodesOf(const Stage& stage) {
  std::set<unsigned long> all;
  for (const std::string& disk : stage.Disks()) {
    for (const unsigned long inode : ::InodesOf(disk)) all.insert(inode);
  }
  return all;
}

// Recordings of which at least one packet had reached its file: parameters come first, then packets.
std::set<uint32_t> StartsWritten(const CrashRun& run) {
  std::map<uint32_t, int> writes;
  std::set<uint32_t> starts;
  const size_t done = run.changes.size() - (run.killed ? 1 : 0);
  for (size_t i = 0; i < done; ++i) {
    if (run.changes[i].rfind("writev ", 0) != 0) continue;
    const uint32_t start = StartOf(run.changes[i]);
    if (start != 0 && ++writes[start] == 2) starts.insert(start);
  }
  return starts;
}

// Starts of the recordings in the lines of output that begin with `word`.
std::set<uint32_t> StartsTold(const std::string& out, const std::string& word) {
  std::set<uint32_t> starts;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(word, 0) == 0) starts.insert(StartOf(line.substr(0, line.find(':'))));
  }
  starts.erase(0);
  return starts;
}

void ExpectHealthy(const Stage& stage, const std::set<unsigned long>& inodes) {
  EXPECT_EQ(inodes, InodesOf(stage));
  for (const std::string& disk : stage.Disks()) {
    ExpectEachInOnePlace(disk, ::InodesOf(disk));
    const recorder::DiskReport report = recorder::CheckDisk(disk);
    EXPECT_FALSE(report.missing) << disk;
    for (const recorder::Finding& finding : report.findings) {
      ADD_FAILURE() << recorder::FaultName(finding.fault) << ": " << finding.path << ": " << finding.what;
    }
  }
}

// Every recording is there that was there before or was begun by the runs, unless a line has told where it
// went, and only the oldest were recycled.
void ExpectNothingLost(const Stage& stage, std::set<uint32_t> expected, const std::vector<CrashRun>& runs) {
  std::string out;
  for (const CrashRun& run : runs) {
    out += run.out + "\n";
    for (const uint32_t start : StartsWritten(run)) expected.insert(start);
  }
  const std::set<uint32_t> present = StartsIn(stage, "data_", false);
  const std::set<uint32_t> quarantined = StartsIn(stage, "imf_error", true);
  const std::set<uint32_t> recycled = StartsTold(out, "recycled ");
  for (const uint32_t start : expected) {
    EXPECT_LE(1u, present.count(start) + quarantined.count(start) + recycled.count(start)) << std::hex << start;
  }
  if (!recycled.empty() && !present.empty()) {
    EXPECT_LE(*recycled.rbegin(), *present.begin());  // equal: killed right after the line
  }
}

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
  runs.push_back(stage.Run(scenario.command(stage), killAt, scenario.failAt));
  runs.push_back(stage.Run(stage.Record(1, kSecondTime), second));
  runs.push_back(stage.Run(stage.Record(1, kLastTime)));
  EXPECT_EQ(0, runs.back().status) << runs.back().error;
  ExpectHealthy(stage, inodes);
  ExpectNothingLost(stage, before, runs);
  return runs[1].killed;
}

// Preparing that was cut off is begun again, or finished by the check once there is a pool.
bool TryPreparing(Stage& stage, const Scenario& scenario, size_t killAt, size_t second) {
  const std::string disk = stage.Root() + "/disk/a";
  stage.Run(scenario.command(stage), killAt);
  bool isKilledTwice = false;
  if (fs::exists(disk + "/imf_free")) {
    const std::set<unsigned long> inodes = InodesOf(stage);
    isKilledTwice = stage.Run({"check", "--return-orphans"}, 1 + second % 10).killed;
    EXPECT_EQ(0, stage.Run({"check", "--return-orphans"}).status);
    ExpectHealthy(stage, inodes);
  } else {
    if (fs::exists(disk + "/imf_prealloc")) {
      const CrashRun refused = stage.Run(scenario.command(stage));
      EXPECT_EQ(2, refused.status);
      EXPECT_NE(std::string::npos, refused.error.find("remove " + disk + "/imf_prealloc")) << refused.error;
      fs::remove_all(disk + "/imf_prealloc");
    }
    EXPECT_EQ(0, stage.Run(scenario.command(stage)).status);
  }
  const std::set<unsigned long> inodes = InodesOf(stage);
  EXPECT_EQ(3u, inodes.size());
  EXPECT_EQ(0, stage.Run(stage.Record(1, kLastTime)).status);
  ExpectHealthy(stage, inodes);
  return isKilledTwice;
}

void BuildFull(Stage& stage) {
  ASSERT_EQ(0, stage.Run(stage.Prepare("a", 3)).status);
  ASSERT_EQ(0, stage.Run(stage.Prepare("b", 3)).status);
  ASSERT_EQ(0, stage.Run(stage.Record(6, kFillTime)).status);
}

// A recording cut off in its middle, a search database that is to be rebuilt, and one that lacks a recording.
void BuildCutOff(Stage& stage) {
  BuildFull(stage);
  stage.Save();
  for (size_t kill = 20;; ++kill) {
    stage.Restore();
    const CrashRun run = stage.Run(stage.Record(3, kFillTime + 500), kill);
    ASSERT_TRUE(run.killed) << "no place to cut found";
    const std::string& cut = run.changes.back();
    if (cut.rfind("writev ", 0) != 0) continue;
    if (StartsWritten(run).count(StartOf(cut)) != 0) break;  // there is something to repair
  }
  fs::resize_file(stage.Root() + "/disk/b/data_00000002/search.fdb", 0);
}

const Scenario kScenarios[] = {
    {"prepare", [](Stage&) {}, [](Stage& stage) { return stage.Prepare("a", 3); },
     "link /disk/a/imf_free/00000002.imf", 0, TryPreparing},
    {"record", [](Stage& stage) { ASSERT_EQ(0, stage.Run(stage.Prepare("a", 4)).status); },
     [](Stage& stage) { return stage.Record(3, kCrashTime); }, "rename /disk/a/imf_free/00000002.imf", 0,
     TryRecording},
    {"recycle", BuildFull, [](Stage& stage) { return stage.Record(3, kCrashTime); },
     "unlink /disk/a/data_00000001/", 0, TryRecording},
    {"quarantine",
     [](Stage& stage) {
       ASSERT_EQ(0, stage.Run(stage.Prepare("a", 4)).status);
       ASSERT_EQ(0, stage.Run(stage.Record(1, kFillTime)).status);
     },
     [](Stage& stage) { return stage.Record(1, kCrashTime); }, "mkdir /disk/a/imf_error/", 4, TryRecording},
    {"recovery", BuildCutOff, [](Stage& stage) { return stage.Record(1, kCrashTime); },
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
  const CrashRun whole = stage.Run(scenario.command(stage), 0, scenario.failAt);
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
