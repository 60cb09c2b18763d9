#include "tests/support/CrashStage.h"

#include <cstdlib>

#include "apps/recorder/check/Checker.h"
#include "platform/host/imf/RecordName.h"

namespace {

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

// Starts of the completed recordings in the lines of output with `word` in them, in front of a path.
std::set<uint32_t> StartsTold(const std::string& out, const std::string& word) {
  std::set<uint32_t> starts;
  for (const std::string& line : LinesOf(out)) {
    if (line.find(word) == std::string::npos || line.find("_00000000.imf") != std::string::npos) continue;
    starts.insert(StartOf(line.substr(0, line.find(':'))));
  }
  starts.erase(0);
  return starts;
}

}  // namespace

Stage::Stage() {
  for (const int segments : {1, 3, 6}) {
    const std::string command = "ffmpeg -v error -f lavfi -i testsrc=size=64x64:rate=2 -t " +
                                std::to_string(2 * segments) + " -c:v mpeg4 -g 2 " + Input(segments);
    EXPECT_EQ(0, std::system(command.c_str())) << "no input";
  }
}

std::vector<std::string> Stage::Disks() const {
  std::vector<std::string> disks;
  for (const std::string& name : NamesIn(Root() + "/disk")) disks.push_back(Root() + "/disk/" + name);
  return disks;
}

CrashRun Stage::Run(Arguments arguments, CrashPlan plan) const {
  const Arguments front = {RECORDER_PROGRAM, "--root", Root()};
  arguments.insert(arguments.begin(), front.begin(), front.end());
  plan.root = Root();
  return RunAndCrash(arguments, plan);
}

Arguments Stage::Prepare(const std::string& disk, int count) const {
  return {"prepare",          "--disk",    disk, "--size",  "1M",
          "--on-system-disk", "--reserve", "2M", "--count", std::to_string(count)};
}

Arguments Stage::Record(int segments, int start) const {
  return {"record",  "--input", Input(segments), "--segment",          "2",
          "--clock", "stream",  "--start",       std::to_string(start)};
}

void Stage::BuildFull() {
  ASSERT_EQ(0, Run(Prepare("a", 3)).status);
  ASSERT_EQ(0, Run(Prepare("b", 3)).status);
  ASSERT_EQ(0, Run(Record(6, kFillTime)).status);
}

void Stage::BuildCutOff() {
  BuildFull();
  Save();
  for (size_t kill = 20;; ++kill) {
    Restore();
    const CrashRun run = Run(Record(3, kFillTime + 500), {"", kill});
    ASSERT_TRUE(run.killed) << "no place to cut found";
    const std::string& cut = run.changes.back();
    if (cut.rfind("writev ", 0) != 0) continue;
    if (StartsWritten(run).count(StartOf(cut)) != 0) break;  // there is something to repair
  }
  fs::resize_file(Root() + "/disk/b/data_00000002/search.fdb", 0);
}

void Stage::Copy(const std::string& from, const std::string& to) {
  const std::string command = "rm -rf " + to + " && cp -a --sparse=always " + from + " " + to;
  if (std::system(command.c_str()) != 0) std::abort();
}

bool Passes(const std::function<void()>& body) {
  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  const int before = result.total_part_count();
  body();
  return result.total_part_count() == before;
}

uint32_t StartOf(const std::string& text, bool unfinishedToo) {
  RecordName record = {};
  const bool is = ParseRecordName(text.substr(text.rfind('/') + 1), &record);
  return is && (unfinishedToo || record.endTime != 0) ? record.startTime : 0;
}

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

void ExpectNothingLost(const Stage& stage, std::set<uint32_t> expected, const std::vector<CrashRun>& runs,
                       bool oldestFirst) {
  std::string out;
  for (const CrashRun& run : runs) {
    out += run.out + "\n";
    for (const uint32_t start : StartsWritten(run)) expected.insert(start);
  }
  const std::set<uint32_t> present = StartsIn(stage, "data_", false);
  const std::set<uint32_t> quarantined = StartsIn(stage, "imf_error", true);
  std::set<uint32_t> recycled = StartsTold(out, "recycled ");
  // Killed between the move and the recorder's line about it, the library's own line has told.
  for (const CrashRun& run : runs) recycled.merge(StartsTold(run.error, "Dbg (fmgr) remove record file "));
  for (const uint32_t start : expected) {
    EXPECT_LE(1u, present.count(start) + quarantined.count(start) + recycled.count(start)) << std::hex << start;
  }
  if (oldestFirst && !recycled.empty() && !present.empty()) {
    EXPECT_LE(*recycled.rbegin(), *present.begin());  // equal: killed right after the line
  }
}
