// Where record files come from and when old ones go, over all disks.
#include <sys/stat.h>

#include <random>

#include "tests/support/ManagerFixture.h"

namespace {
time_t gNow = kT;
}

// The library's clock, so that a limit of hours passes in no time.
extern "C" time_t time(time_t* out) noexcept {
  if (out != nullptr) *out = gNow;
  return gNow;
}

namespace {

class AllocationTest : public ManagerTest {
 protected:
  int Make(int start, std::string& path) {
    timeval time{kT + start, 999999};
    return mManager->MakeRecordFile(time, path);
  }
};

TEST_F(AllocationTest, FromFreeFileToCompletedRecording) {
  const std::string disk = Add("a 2");
  const std::set<unsigned long> inodes = InodesOf(disk);
  EXPECT_EQ(0, mManager->MakeCheckInitDataRepository());
  EXPECT_EQ(DataDir(disk, 1), fs::read_symlink("/tmp/curr_rep").string());
  std::string path;
  EXPECT_EQ(0, Make(0, path));
  EXPECT_EQ(PathOf(disk, "1:0"), path);
  EXPECT_EQ(disk, fs::read_symlink("/tmp/curr_disk").string());
  std::string completed;
  EXPECT_EQ(0, mManager->RenameRecordFile(path, kT + 60, 1, completed));
  EXPECT_EQ(PathOf(disk, "1:0-60"), completed);
  ExpectEachInOnePlace(disk, inodes);
  // Deliberate: the owner is found by its path anywhere in the text, and what the rename did is not told.
  EXPECT_EQ(0, mManager->RenameRecordFile("elsewhere" + completed, kT + 61, 1, path));
  EXPECT_EQ(12, mManager->RenameRecordFile(disk + "/imf_free/00000001.imf", kT + 61, 1, path));
}

TEST_F(AllocationTest, ResultsOfMakeRecordFile) {
  const std::string a = "a 0 1:10-20 1:20-30";
  const std::string b = "b 0 2:30-40 2:40-50";
  const std::tuple<const char*, Names, int, int, bool> rows[] = {
      // name, disks, overwrite, result, whether the first disk's recording of 10 to 20 goes, and no other
      {"full, nothing may go", {a, b}, 0, 2, false},
      {"full, only 1 allows overwriting", {a, b}, 2, 2, false},
      {"full, the oldest of the next disk goes", {a, b}, 1, 0, true},
      {"the next disk has room", {"a 1 1:10-20", b}, 0, 0, false},
      {"its last recording takes the directory along", {"a 0 1:10-20"}, 1, 0, true},
      {"a disk without any file", {"a 0"}, 1, 2, false},
      {"numbers end", {"a 0 2147483647:1-2"}, 1, 2, false},
  };
  for (const auto& [name, contents, overwrite, result, recycles] : rows) {
    SCOPED_TRACE(name);
    const std::vector<std::string> disks = Begin(contents);
    std::vector<std::set<unsigned long>> inodes;
    for (const std::string& disk : disks) inodes.push_back(InodesOf(disk));
    const size_t recordings = RecordFilesIn(mRoot->Path()).size();
    mManager->mOverwrite = overwrite;
    std::string path;
    EXPECT_EQ(result, Make(100, path));
    EXPECT_EQ(result == 0, fs::exists(path)) << path;
    for (size_t i = 0; i < disks.size(); ++i) ExpectEachInOnePlace(disks[i], inodes[i]);
    EXPECT_EQ(recordings + (result == 0) - recycles, RecordFilesIn(mRoot->Path()).size());
    EXPECT_FALSE(recycles && fs::exists(PathOf(disks[0], "1:10-20")));
  }
  const std::string disk = Begin({"a 1"})[0];
  ASSERT_EQ(0, mkdir(DataDir(disk, 1).c_str(), 0700));  // behind the library's back
  std::string path;
  EXPECT_EQ(11, Make(0, path));
  EXPECT_EQ(11, mManager->MakeCheckInitDataRepository());
  EXPECT_EQ(1, mManager->GetFreeFileCount());
}

TEST_F(AllocationTest, WhenANewDataDirectoryIsDue) {
  const std::tuple<const char*, Names, int, const char*, int> rows[] = {
      // name, disks, the new recording's time, order and the current disk's last number afterwards
      {"5 seconds before the end are tolerated", {"a 1 3:500-600"}, 595, "a ", 3},
      {"6 are not", {"a 1 3:500-600"}, 594, "a ", 4},
      {"without a free file, the next disk", {"b 0 2:50-60", "a 0 3:500-600"}, 594, "a b ", 4},
      {"without a free file, an only disk", {"a 0 1:50-60 2:100-200"}, 194, "a ", 3},
      // The clock was set back at 500 and now runs into what was recorded before.
      {"into two", {"a 1 1:1000-1100 2:1200-1300 3:500-600"}, 1201, "a ", 4},
      {"not yet", {"a 1 1:1000-1100 3:500-600"}, 1000, "a ", 3},
      {"into another disk's", {"b 1 1:1000-1100", "a 1 3:500-600"}, 1001, "b a ", 4},
      {"of the same number, no conflict", {"a 1 3:500-600", "b 1 3:1000-1100"}, 1001, "b a ", 3},  // deliberate
  };
  for (const auto& [name, disks, newTime, order, lastIndex] : rows) {
    SCOPED_TRACE(name);
    Begin(disks);
    mManager->CheckRepositoryChangeCondition(kT + newTime);
    EXPECT_EQ(order, Order());
    EXPECT_EQ(lastIndex, mManager->CurrentRepositoryGroup()->GetLastIndex());
  }
}

// 10 lies between two limits of the menu and has always meant "no limit"; so does what the menu does not know.
TEST_F(AllocationTest, ServesTheMenusValuesForTheTimeLimit) {
  const int hours[] = {0, 12, 24, 48, 72, 96, 120, 144, 168, 336, 0, 672, 720, 1440, 2160, 0};
  for (int value = 0; value < 16; ++value) {
    mManager->SetPreserveLimitHour(static_cast<ipc_preserve_limit_e>(value));
    EXPECT_EQ(hours[value], mManager->mPreserveLimitHour) << value;
  }
}

TEST_F(AllocationTest, RecordingsBeyondThePreservationLimitGo) {
  constexpr int kHour = 3600;
  RecordingObserver observer;
  mManager->mGroupParamA = &observer;
  Add("c 1");  // without recordings, so skipped, although it is the first
  const std::string a = Add("a 0 1:0-60 3:120-180 5:7200-9000");
  const std::string b = Add("b 0 2:60-120 4:180-240 4:240-300");
  EXPECT_EQ("c b a ", Order());
  gNow = kT + 12 * kHour + 180;
  mManager->CheckPreserveTime(9);  // no limit
  mManager->SetPreserveLimitHour(IPC_PRESERVE_12_HOURS);
  mManager->CheckPreserveTime(0);
  EXPECT_EQ(0u, observer.heard.size());
  mManager->CheckPreserveTime(1);
  EXPECT_EQ((std::vector<std::string>{"removed " + PathOf(a, "1:0-60") + " 5f5e1000 5f5e103c 1"}),
            observer.heard);
  mManager->CheckPreserveTime(9);
  EXPECT_EQ(3u, observer.heard.size());
  EXPECT_FALSE(fs::exists(PathOf(b, "2:60-120")));
  EXPECT_FALSE(fs::exists(PathOf(a, "3:120-180")));  // ended exactly at the limit

  gNow += kHour;
  // Behind the library's back: the first one found missing ends the rounds.
  for (const char* missing : {"4:180-240", "4:240-300"}) ASSERT_EQ(0, unlink(PathOf(b, missing).c_str()));
  const std::string log = StderrOf([&] { mManager->CheckPreserveTime(9); });
  const std::string line = ":1100) Timeover file remove failure!!";
  EXPECT_TRUE(Has(log, line));
  EXPECT_EQ(log.rfind(line), log.find(line));
}

// Days of recording with everything that happens to a recorder, in the order that `kSeed` gives.
TEST_F(AllocationTest, HundredThousandSegmentsLeaveEachFileInOnePlace) {
  constexpr unsigned kSeed = 20201;
  constexpr int kSegments = 100000;
  constexpr size_t kFiles = 60;
  std::mt19937 random(kSeed);
  const auto oneIn = [&random](unsigned n) { return random() % n == 0; };

  const std::vector<std::string> disks = Begin({"a 60", "b 60"});
  const std::set<unsigned long> inodes[] = {InodesOf(disks[0]), InodesOf(disks[1])};
  int clock = 0, quarantined = 0, setBack = 0;
  StderrOf([&] {  // three lines for each segment
    for (int segment = 0; segment < kSegments && !HasFailure(); ++segment) {
      if (segment % 25000 == 0) {  // a restart
        Restart(0);
        mRoot->ForgetAll();
        for (const std::string& disk : disks) ASSERT_EQ(1, mManager->AddRepositoryGroup(disk));
        mManager->mOverwrite = 1;
        mManager->SetPreserveLimitHour(IPC_PRESERVE_12_HOURS);
      }
      if (oneIn(2000)) {
        clock -= 3600 + static_cast<int>(random() % 86400);
        ++setBack;
      } else {
        clock += static_cast<int>(oneIn(1000) ? 86400 : random() % 3);
      }
      std::string path;
      mManager->CheckRepositoryChangeCondition(kT + clock);
      ASSERT_EQ(0, Make(clock, path)) << segment;
      clock += 1 + static_cast<int>(random() % 6);
      if (oneIn(3000)) {
        ASSERT_EQ(1, mManager->MoveRecordFileToErrorRepository(path, 1)) << segment;
        ++quarantined;
      } else {
        ASSERT_EQ(0, mManager->RenameRecordFile(path, kT + clock, random() % 15 + 1, path)) << segment;
      }
      gNow = kT + clock;
      if (oneIn(50)) mManager->CheckPreserveTime(2);

      if (segment % 1000 != 999) continue;
      SCOPED_TRACE(segment);
      size_t errors = 0;
      for (const FmgrRepositoryGroup* group : mManager->mGroups) {
        ExpectEachInOnePlace(group->Path(), inodes[group->Path() == disks[0] ? 0 : 1]);
        // The lists say what the names say.
        const size_t quarantinedHere = NamesIn(group->Path() + "/imf_error").size();
        const size_t free = NamesIn(group->Path() + "/imf_free").size();
        EXPECT_EQ(free, static_cast<size_t>(group->GetFreeFileCount()));
        EXPECT_EQ(kFiles - free - quarantinedHere, static_cast<size_t>(group->GetRecordFileCount()));
        errors += quarantinedHere;
      }
      EXPECT_EQ(static_cast<size_t>(quarantined), errors);
    }
  });
  EXPECT_GT(quarantined, 10);
  EXPECT_GT(setBack, 10);
}

}  // namespace
