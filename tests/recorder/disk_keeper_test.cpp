// Disks that come and go while it is recorded, and in what order their recordings are recycled.
#include <sys/timex.h>

#include <algorithm>
#include <chrono>

#include "apps/recorder/recording/DirectoryNumbers.h"
#include "apps/recorder/recording/DiskKeeper.h"
#include "tests/support/Process.h"
#include "tests/support/RecorderProgram.h"

namespace {

using recorder::DirectoryList;

constexpr int64_t kNow = 1000;

// As "a5 b6": what PlanNumbers would rename, disks called by letters, and to which numbers, in order of time.
std::string PlanOf(const std::vector<DirectoryList>& disks) {
  std::string text;
  const auto plan = recorder::PlanNumbers(disks, kNow);
  for (auto each = plan.rbegin(); each != plan.rend(); ++each)
    text += Text(" %c%d>%d", static_cast<char>('a' + each->disk), each->from.number, each->number);
  return text;
}

TEST(DirectoryNumbers, AscendWithTime) {
  const std::tuple<const char*, std::vector<DirectoryList>, const char*> kCases[] = {
      {"nothing", {{}, {}}, ""},
      {"in order", {{{1, 100, ""}, {3, 300, ""}}, {{2, 200, ""}}}, ""},
      {"one number twice", {{{3, 200, ""}}, {{2, 100, ""}, {3, 300, ""}}}, " b3>4"},
      {"numbered from 1 again", {{{1, 100, ""}, {2, 200, ""}}, {{1, 300, ""}, {2, 400, ""}}}, " b1>3 b2>4"},
      {"newer before older", {{{4, 100, ""}, {5, 400, ""}}, {{2, 200, ""}, {3, 300, ""}}}, " b2>6 b3>7 a5>8"},
      {"a clock set back keeps its disk's order", {{{1, 500, ""}, {2, 400, ""}}, {{3, 600, ""}}}, ""},
      {"a clock that was ahead",
       {{{1, 5000, ""}, {3, 300, ""}}, {{2, 200, ""}, {4, 400, ""}}},
       " a1>5 a3>6 b4>7"},
      {"an empty one", {{{1, 0, ""}, {9, 0, ""}}, {{1, 100, ""}, {2, 200, ""}}}, ""},
      {"no numbers left", {{{99999999, 200, ""}}, {{99999999, 100, ""}}}, ""},
  };
  for (const auto& [what, disks, plan] : kCases) EXPECT_EQ(plan, PlanOf(disks)) << what;
}

class DiskKeeperTest : public RecorderFixture {
 protected:
  void SetUp() override { mProgram.MakeVideo(mVideo, 25, "200k"); }
  ~DiskKeeperTest() override { mProgram.Shell("umount -l " + DiskPath("a") + "; umount -l " + DiskPath("b")); }

  int Record(const std::string& start, const std::string& more = "") {
    return Run("record --clock stream --segment 4 --input " + mVideo + " --start " + start + more);
  }

  // Names of all recordings, which are in order of time, of one disk or of all.
  static Names Recordings(const std::string& below) {
    Names names;
    for (const auto& [name, path] : RecordFilesIn(below, "_cm")) names.push_back(name);
    return names;
  }
  // In the order in which they went.
  static Names Recycled(const std::string& out) {
    Names names;
    for (const std::string& line : LinesOf(out)) {
      if (line.rfind("recycled ", 0) != 0) continue;
      names.push_back(fs::path(line.substr(9, line.find(':') - 9)).filename());
    }
    return names;
  }

  const std::string mVideo = mRoot.Path() + "/video.mp4";
};

// Numbers that a disk brought back once stood in the way for ever: a data directory for every segment.
TEST_F(DiskKeeperTest, RecyclesTheOldestFirstAfterADiskWasAway) {
  for (const char* disk : {"a", "b"}) Prepare(disk, 5);
  ASSERT_EQ(0, Record("2024-05-01T12:00:00Z")) << mProgram.err;
  fs::rename(DiskPath("b"), mRoot.Path() + "/away");
  const std::string part = mRoot.Path() + "/part.mp4";
  ASSERT_EQ(0, mProgram.Shell("ffmpeg -v error -i " + mVideo + " -t 12 -c copy " + part));
  ASSERT_EQ(0, Run("record --clock stream --segment 4 --start 2024-05-01T13:00:00Z --input " + part));
  EXPECT_FALSE(Recycled(mProgram.out).empty());
  fs::rename(mRoot.Path() + "/away", DiskPath("b"));
  for (const char* start : {"2024-05-01T14:00:00Z", "2024-05-01T15:00:00Z", "2024-05-01T16:00:00Z"}) {
    const Names before = Recordings(mRoot.Path());
    ASSERT_EQ(0, Record(start)) << mProgram.err;
    Names recycled = Recycled(mProgram.out);
    ASSERT_EQ(10u, recycled.size());
    recycled.resize(before.size());
    EXPECT_EQ(before, recycled);
    ASSERT_EQ(0, mProgram.Shell("ls -d " + DiskPath("?") + "/data_*"));
    EXPECT_LE(LinesOf(mProgram.out).size(), 4u);
  }
  EXPECT_EQ(0, Run("check")) << mProgram.out;
}

// Two small file systems; skipped where none can be mounted.
TEST_F(DiskKeeperTest, GoesOnWithoutADiskAndTakesItBack) {
  for (const char* disk : {"a", "b"}) {
    const std::string image = mRoot.Path() + "/" + disk;
    fs::create_directories(DiskPath(disk));
    if (mProgram.Shell("truncate -s 24M " + image + " && mkfs.ext4 -q -F -m 0 " + image +
                       " && mount -o loop,errors=remount-ro " + image + " " + DiskPath(disk)) != 0) {
      GTEST_SKIP() << "no file system can be mounted here: " << mProgram.err;
    }
    Prepare(disk, 12);
  }
  ASSERT_EQ(0, mProgram.Shell("findmnt -no SOURCE " + DiskPath("a")));
  const std::string trigger = "/sys/fs/ext4/" +
                              fs::path(mProgram.out.substr(0, mProgram.out.find('\n'))).filename().string() +
                              "/trigger_fs_error";
  if (!fs::exists(trigger)) GTEST_SKIP() << "this kernel can't make a file system read-only on demand";

  const std::string output = mRoot.Path() + "/record";
  Process recorder(RECORDER_PROGRAM " --root " + mRoot.Path() + " record --segment 1 --retry 1 --input " +
                   mVideo + " >" + output + " 2>&1");
  const auto told = [&](const std::string& text) {
    return Await([&] { return bool{Has(ReadText(output), text)}; });
  };
  sleep(3);
  ASSERT_EQ(0, mProgram.Shell("echo 1 >" + trigger));
  EXPECT_TRUE(told("disk a is set aside: ")) << ReadText(output);
  sleep(2);
  ASSERT_EQ(0, Run("status --json"));
  EXPECT_EQ("aside", mProgram.JsonLines().at(0)["state"]);
  EXPECT_EQ("used", mProgram.JsonLines().at(1)["state"]);
  // As whoever looks after it does: nothing holds it any more.
  ASSERT_EQ(0, mProgram.Shell("umount " + DiskPath("a"))) << mProgram.err;
  EXPECT_TRUE(told("disk a is missing: ")) << ReadText(output);
  EXPECT_TRUE(NamesIn(DiskPath("a")).empty()) << "nothing is written to an empty mount point";
  EXPECT_EQ(1, Run("check --disk a"));
  mProgram.Shell("e2fsck -fy " + mRoot.Path() + "/a");
  ASSERT_EQ(0, mProgram.Shell("mount -o loop " + mRoot.Path() + "/a " + DiskPath("a"))) << mProgram.err;
  EXPECT_TRUE(told("disk a is used from now on")) << ReadText(output);
  const Names before = Recordings(DiskPath("a"));
  EXPECT_TRUE(Await([&] { return Recordings(DiskPath("a")) != before; })) << "both are in use again";
  ASSERT_EQ(0, recorder.Stop(SIGTERM));

  const Names recycled = Recycled(ReadText(output));
  EXPECT_TRUE(std::is_sorted(recycled.begin(), recycled.end())) << "oldest first";
  // Each recording begins before the one before it has ended, by whole seconds. What the disk held when it
  // failed was completed when it came back; no more is missing than what it had not made durable.
  unsigned end = UINT32_MAX, missing = 0;
  for (const std::string& name : Recordings(mRoot.Path())) {
    unsigned start = 0, until = 0;
    ASSERT_EQ(2, std::sscanf(name.c_str(), "%x_%x", &start, &until));
    if (start > end) missing += start - end;
    end = until;
  }
  EXPECT_LE(missing, 2u);
  EXPECT_TRUE(Has(ReadText(output), "dropped 0 packets"));
  EXPECT_EQ(0, Run("check")) << mProgram.out;
}

// A disk that takes a small write and fails in use would come and go for ever.
TEST_F(DiskKeeperTest, LeavesADiskThatFailsAgainAloneForLonger) {
  for (const char* disk : {"a", "b"}) Prepare(disk, 3);
  recorder::SearchIndex index;
  recorder::Recovery recovery(index);
  recorder::LockSet locks("test");
  recorder::Disks disks;
  ASSERT_FALSE(disks.Choose(mRoot.Path(), {}));
  ASSERT_FALSE(disks.OpenForRecording({}));
  recorder::DiskKeeper keeper(disks, locks, index, recovery, {1, true, true});
  keeper.Start();
  const auto fail = [&] {  // seconds until the disk is used again
    const auto begin = std::chrono::steady_clock::now();
    keeper.SetAside(DiskPath("a"), "failed", 0);
    for (int i = 0; keeper.HasUnused() && i < 60; ++i) {
      usleep(200000);
      keeper.Look();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  fail();
  fail();
  const double third = fail();
  EXPECT_GT(third, 3);
  keeper.NoteFull();
  EXPECT_LT(fail(), third) << "it is needed";
  keeper.NoteRecorded(DiskPath("a") + "/data_00000001/x.imf");
  EXPECT_LT(fail(), third);
}

// A clock that is ahead makes every recording look old.
TEST_F(DiskKeeperTest, ExpiresNothingByAClockThatNothingBearsOut) {
  timex state = {};
  if (adjtimex(&state) != TIME_ERROR && (state.status & STA_UNSYNC) == 0) {
    GTEST_SKIP() << "the kernel says that the clock is synchronised";
  }
  Prepare("a", 20);
  ASSERT_EQ(0, Record("2024-05-01T12:00:00Z", " --keep 24")) << mProgram.err;
  EXPECT_TRUE(Recycled(mProgram.out).empty()) << "not made by the clock";
  const Names before = Recordings(mRoot.Path());
  ASSERT_EQ(0, Record("2024-05-02T12:00:00Z", " --keep 24"));
  EXPECT_TRUE(Has(mProgram.err, "nothing bears out"));
  EXPECT_TRUE(Recycled(mProgram.out).empty());
  for (const std::string& name : before) EXPECT_EQ(1u, RecordFilesIn(mRoot.Path()).count(name)) << name;
  ASSERT_EQ(0, Record("2024-05-03T12:00:00Z", " --keep 24 --trust-clock"));
  EXPECT_TRUE(Has(mProgram.err, "are older than")) << "more than half: said";
  EXPECT_FALSE(Recycled(mProgram.out).empty());
}

}  // namespace
