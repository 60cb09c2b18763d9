// The file manager's life, the preparation of a disk, the disks and their rotation.
#include <sys/stat.h>

#include "SearchDb.h"
#include "tests/support/FlcSpy.h"
#include "tests/support/ManagerFixture.h"

namespace {

using FileManagerTest = ManagerTest;
constexpr int kMiB = 1 << 20;

TEST(FileManagerLife, OneInstanceFromFirstGetToRelease) {
  EXPECT_EQ(0, FmgrFileManager::ReleaseInstance());
  const FmgrFileManager* first = FmgrFileManager::GetInstance(3);
  EXPECT_EQ(first, FmgrFileManager::GetInstance(5));
  EXPECT_EQ(3, first->mGroupOption);
  flc_spy::Clear();
  EXPECT_EQ(1, FmgrFileManager::ReleaseInstance());
  ASSERT_EQ(1u, flc_spy::Requests().size());
  EXPECT_EQ(FLC_CLEAR, flc_spy::Requests()[0].number);
  EXPECT_EQ(0, FmgrFileManager::ReleaseInstance());
  EXPECT_EQ(5, FmgrFileManager::GetInstance(5)->mGroupOption);
  FmgrFileManager::ReleaseInstance();
}

TEST_F(FileManagerTest, WithoutADisk) {
  FmgrFileManager& m = *mManager;
  std::string path = "/tmp/x";
  timeval time{kT, 0};
  TimeSearchChart chart;
  std::list<std::string> files{"from before"};
  int a = 7;
  int b = 7;
  m.CheckRepositoryChangeCondition(kT);
  EXPECT_EQ(nullptr, m.CurrentRepositoryGroup());
  EXPECT_EQ(nullptr, m.GetOldestRepositoryGroup());
  EXPECT_EQ(0, m.ChangeToNextGroup(1) | m.ForceChangeCurrentDisk() | m.CreateDataRepository(1) |
                   m.RemoveOldestRecordFile() | m.MoveRecordFileToErrorRepository(path, 1) |
                   m.CollectSearchData(&chart) | m.GetRemainSize(a) | m.GetTimeRange(a, b));
  EXPECT_EQ(0, a | b);
  const std::set<int> results = {m.CheckFileManagerStatus(),         m.MakeRecordFile(time, path),
                                 m.MakeCheckInitDataRepository(),    m.RenameRecordFile(path, 1, 1, path),
                                 m.GetFilePath(kT, path, 1),         m.CollectFileList(files, {}),
                                 int(m.GetNextFilePath(path, path)), int(m.GetPrevFilePath(path, path))};
  EXPECT_EQ(std::set<int>{12}, results);
}

TEST_F(FileManagerTest, BuildPreparesADiskOnce) {
  const std::string disk = mRoot->AddDisk("a");
  ASSERT_EQ(0, rmdir((disk + "/imf_free").c_str()));
  EXPECT_EQ(1, FmgrFileManager::BuildRepositoryGroup(disk, 1, 3, nullptr));
  EXPECT_TRUE(mManager->mGroups.empty());
  EXPECT_EQ(3u, InodesOf(disk).size());
  EXPECT_EQ(0, FmgrFileManager::BuildRepositoryGroup(disk, 1, 2, nullptr));
  EXPECT_EQ(3u, InodesOf(disk).size());
  // A pool of earlier times stops the build, and what was laid down stays.
  ASSERT_EQ(0, rename((disk + "/imf_prealloc").c_str(), (disk + "/old").c_str()));
  EXPECT_EQ(0, FmgrFileManager::BuildRepositoryGroup(disk, 1, 2, nullptr));
  EXPECT_EQ(2u, NamesIn(disk + "/imf_prealloc").size());
}

TEST_F(FileManagerTest, RemainingSizeWhileBuilding) {
  const std::tuple<int, int, int, int, int> rows[] = {
      {3, 2, 256 * kMiB, 768, 512},
      {3, 2, kMiB - 1, 2, 1},  // rounded to KiB for one file, to MiB for the sum
      {0, 2, kMiB, 0, 0},
      {1, 1100, 2000 * kMiB, 2000, 2200000}};  // the product in KiB needs more than 32 bits
  for (const auto& [preallocCount, freeCount, size, preallocMiB, freeMiB] : rows) {
    Begin({});
    const std::string disk = mRoot->AddDisk("a", freeCount, 1);  // the size is that of a pre-allocated file
    for (int i = 0; i < preallocCount; ++i) MakeTestFile(disk + Text("/imf_prealloc/%d.imf", i), size);
    int prealloc = -1;
    EXPECT_EQ(freeMiB, mManager->RemainRecordSize(disk.c_str(), prealloc));
    EXPECT_EQ(preallocMiB, prealloc);
  }
}

TEST_F(FileManagerTest, RemainingSizeCountsEarlierDisksAgain) {
  Add("a 2 1:0-10", kMiB);
  Add("b 3 2:20-30 2:30-40 3:50-60 3:60-70", kMiB);
  int total = 0;
  EXPECT_EQ(5, mManager->GetRemainSize(total));
  EXPECT_EQ((2 + 1) + (5 + 4), total);  // deliberate: a's free files count a second time
}

TEST_F(FileManagerTest, DisksComeInOrderOfTheirLastDirectoryAndGo) {
  const std::string a = Add("a 1 5:10-55");
  Add("b 1 1:10-15 2:20-25");
  EXPECT_EQ(a, fs::read_symlink("/tmp/curr_disk").string());
  const std::string c = Add("c 1 9:90-95 10:100-105");
  EXPECT_EQ(DataDir(c, 10), fs::read_symlink("/tmp/curr_rep").string());
  Add("d 1 5:50-54");
  EXPECT_EQ("b d a c ", Order());
  EXPECT_EQ(0, mManager->AddRepositoryGroup(a));                // managed already
  EXPECT_EQ("b", mManager->GetOldestRepositoryGroup()->mName);  // as old as a, but earlier in the list

  // Taken off the list: still alive, and the links still point at it.
  std::unique_ptr<FmgrRepositoryGroup> gone(mManager->CurrentRepositoryGroup());
  mManager->RemoveRepositoryGroup(mRoot->Path() + "/disk/");
  mManager->RemoveRepositoryGroup(c);
  EXPECT_EQ("b d a ", Order());
  EXPECT_EQ(gone->Path(), fs::read_symlink("/tmp/curr_disk").string());
  gone.reset(mManager->CurrentRepositoryGroup());
  EXPECT_EQ(1, mManager->ForceChangeCurrentDisk());
  EXPECT_EQ("b d ", Order());
  gone.reset(mManager->mGroups.front());
  mManager->RemoveRepositoryGroup(gone->Path());
  EXPECT_EQ(0, mManager->ForceChangeCurrentDisk());  // the only one stays
  Add("e 1");
  EXPECT_EQ("e", mManager->GetOldestRepositoryGroup()->mName);  // -1 is smaller than any start
}

TEST_F(FileManagerTest, WhetherRecordingCanGoOn) {
  Begin({"a 1 1:10-15", "b 0 2:20-25"});
  EXPECT_EQ(0, mManager->CheckFileManagerStatus());
  mManager->mGroups.front()->mFreeRepository.Pop();
  EXPECT_EQ(2, mManager->CheckFileManagerStatus());
  mManager->mOverwrite = 1;
  EXPECT_EQ(0, mManager->CheckFileManagerStatus());
}

TEST_F(FileManagerTest, ChangeToTheNextDisk) {
  const std::tuple<const char*, Names, int, int, const char*, int, std::string> rows[] = {
      // what, disks, forced, result, order and the current disk's last number afterwards, disks whose files the
      // driver can't count
      {"only directory of an only disk", {"a 0 1:1-2"}, 0, 1, "a ", 2, ""},
      {"only disk with two directories", {"a 0 7:1-2 8:3-4"}, 0, 1, "a ", 8, ""},
      {"the same, forced", {"a 0 7:1-2 8:3-4"}, 1, 1, "a ", 9, ""},
      {"numbers end", {"a 0 2147483647:1-2"}, 1, 0, "a ", 2147483647, ""},
      {"a disk never used comes first", {"a 0 1:1-2", "b 0 1:3-4 4:5-6", "c 1"}, 0, 1, "a b c ", 5, ""},
      {"then the oldest first directory", {"a 0 3:1-2", "b 0 1:3-4 4:5-6"}, 0, 1, "a b ", 4, ""},
      {"of equal ones the earlier", {"a 0 1:1-2", "b 0 1:3-4 4:5-6"}, 0, 1, "b a ", 5, ""},
      {"a disk that can't be counted", {"a 0 1:1-2", "b 0 2:3-4", "c 0 3:5-6"}, 0, 1, "c a b ", 4, "a"},
      {"the search ends when none can", {"a 0 1:1-2", "b 0 2:3-4"}, 0, 0, "a b ", 2, "ab"},
  };
  for (const auto& [what, disks, force, expected, order, lastIndex, bad] : rows) {
    SCOPED_TRACE(what);
    Begin(disks);
    flc_spy::gAnswer = [&uncounted = bad](unsigned long number, void* disk, int& result) {
      result = -1;
      return number == FLC_FILE_COUNT && uncounted.find(*static_cast<char*>(disk)) != std::string::npos;
    };
    EXPECT_EQ(expected, mManager->ChangeToNextGroup(force));
    flc_spy::gAnswer = nullptr;
    EXPECT_EQ(order, Order());
    EXPECT_EQ(lastIndex, mManager->CurrentRepositoryGroup()->GetLastIndex());
    EXPECT_TRUE(fs::exists(DataDir(mManager->CurrentRepositoryGroup()->Path(), lastIndex)));
  }
}

TEST_F(FileManagerTest, EveryDiskIsPolled) {
  for (const std::string& disk : Begin({"a 1 1:10-15", "b 1 2:20-25"}, 1))
    ASSERT_EQ(0, mkdir(DataDir(disk, 9).c_str(), 0700));
  mManager->CheckRepository();
  for (const FmgrRepositoryGroup* group : mManager->mGroups) EXPECT_EQ(9, group->GetLastIndex());
}

// The application's second set of disks: read from names, never linked, and not the driver's business.
TEST_F(FileManagerTest, AlternativeDisks) {
  const std::string a = Add("a 1 1:10-15");
  mManager->mAltMode = 1;
  const std::string b = Add("b 2 7:20-25 7:30-35");
  EXPECT_EQ("a ", Order());
  std::string renamed;
  const std::string last = DataDir(b, 7) + Text("/%x_%x_cm1.imf", kT + 30, kT + 35);
  EXPECT_EQ(FMGR_DONE, mManager->RenameRecordFile(last, kT + 38, 1, renamed));
  EXPECT_TRUE(fs::exists(renamed) && !fs::exists(last));
  mManager->mAltMode = 0;
  int start = 0;
  int end = 0;
  EXPECT_EQ(1, mManager->GetExternalTimeRange(start, end));
  EXPECT_EQ(kT + 20, start);
  mManager->CleanUpRepositoryGroup();
  mManager->mAltMode = 2;
  flc_spy::Clear();
  EXPECT_EQ(1, FmgrFileManager::ReleaseInstance());
  EXPECT_EQ(Names(), flc_spy::Sent());
}

}  // namespace
