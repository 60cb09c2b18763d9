// All repositories of one disk: its data directories in order, and the record files across them.
#include <climits>

#include "fmgr/FmgrRepositoryGroup.h"
#include "tests/support/FlcSpy.h"
#include "tests/support/TestDirectory.h"

namespace {

const Names kOne = {"5f5e1000_5f5e1258_cmf.imf"};
const Names kTwo = {"5f5e2000_5f5e2258_cmf.imf", "5f5e3000_5f5e3258_cmf.imf"};

// A disk with data directories 1, 2, ... of the given record files, listed. An empty one has a file that is no
// recording.
struct Disk {
  Disk(unsigned mode, const std::vector<Names>& directories, int freeFiles = 0)
      : path(root.AddDisk("sda1", freeFiles)), group(path, mode, 0) {
    for (size_t i = 0; i < directories.size(); ++i) {
      const std::string directory = path + "/data_" + std::to_string(i + 1) + "/";
      MakeTestFile(directory + "note");
      for (const std::string& name : directories[i]) MakeTestFile(directory + name);
    }
    EXPECT_EQ(1, group.DataRepositoryListUp(path));
    flc_spy::Clear();
  }

  std::vector<int> Indexes() const {
    std::vector<int> indexes;
    for (const FmgrDataRepository* each : group.mDataRepositories) indexes.push_back(each->Index());
    return indexes;
  }

  TestRoot root;
  const std::string path;
  FmgrRepositoryGroup group;
};

TEST(Group, ListsByNumberAndHandsOn) {
  for (const unsigned mode : {kList, kCache}) {
    Disk disk(mode, {});
    for (const char* name : {"data_2", "data_10", "data_9"}) fs::create_directory(disk.path + "/" + name);
    disk.group.mTempRoot = "/tmp/root";
    EXPECT_EQ(1, disk.group.DataRepositoryListUp(disk.path));
    EXPECT_EQ(1, disk.group.MakeDataRepository(-1, 1));
    EXPECT_EQ((std::vector<int>{2, 9, 10, 11}), disk.Indexes());
    EXPECT_EQ("/tmp/root", disk.group.mDataRepositories.back()->mLinkRoot);
  }
}

TEST(Group, MakesDataDirectories) {
  TestRoot root;
  const std::string disk = root.Path() + "/usbdisk12";
  fs::create_directories(disk + "/data_00000006/");
  FmgrRepositoryGroup group(disk, kCache, 0);
  flc_spy::Clear();
  EXPECT_EQ(1, group.MakeDataRepository(-1, 1));
  EXPECT_EQ(1, group.MakeDataRepository(5, 1));
  EXPECT_EQ(0, group.MakeDataRepository(5, 1));
  EXPECT_EQ(0, group.MakeDataRepository(6, 1)) << "it is there already";
  EXPECT_EQ(1, group.MakeDataRepository(INT_MAX, 0));  // somebody else's: nothing is made, nobody told
  EXPECT_EQ(0, group.MakeDataRepository(-1, 1));
  EXPECT_EQ(3, group.GetDataRepositoryCount());
  EXPECT_EQ((Names{"303 usbdisk1 1", "303 usbdisk1 5"}), flc_spy::Sent());
  EXPECT_EQ((Names{"data_00000001", "data_00000005", "data_00000006"}), NamesIn(disk));
}

TEST(Group, MergesByStartBehindEqualStarts) {
  Disk disk(kList, {{"30_31_cm1.imf"}, {"10_11_cm1.imf"}, {}}),
      other(kList, {{"10_12_cm1.imf"}, {"20_21_cm1.imf"}});
  std::list<FmgrDataRepository*> merged;
  disk.group.GetDataRepository(merged);
  other.group.GetDataRepository(merged);
  std::string order;
  for (FmgrDataRepository* each : merged)
    order += (each->Path().find(disk.path) == 0 ? " a" : " b") + std::to_string(each->Index());
  EXPECT_EQ(" a3 a2 b1 b2 a1", order);
}

TEST(Group, OldestAndRange) {
  const Names a = {"10_1f_cm1.imf"}, b = {"20_2f_cm1.imf"}, none, zero = {"x_30_cm1.imf"},
              open = {"8_00000000.imf"};
  // Smallest start, oldest directory and its start, then result, start and end of the range.
  const auto expectAnswers = [](const std::vector<Names>& directories, const std::vector<int>& answers) {
    const Disk disk(kList, directories);
    const FmgrDataRepository* oldest = disk.group.GetOldestDataRepository();
    int start = 7, end = 7;
    const int range = disk.group.GetTimeRange(start, end);
    EXPECT_EQ(answers, (std::vector<int>{disk.group.GetStartTime(), oldest == nullptr ? 0 : oldest->Index(),
                                         disk.group.GetStartTimeSec(), range, start, end}));
  };
  expectAnswers({}, {0, 0, -1, 0, 0, 0});
  expectAnswers({b, a, none}, {-1, 2, 0x10, 1, 0x10, 0x2f});
  expectAnswers({none, a}, {-1, 1, -1, 1, 0x10, 0x1f});  // a first directory without a start is never replaced
  expectAnswers({zero, b}, {0x20, 1, 0, 1, 0x20, 0x30});
  expectAnswers({open, none}, {-1, 1, 8, 0, 0, 0});  // no end is known
}

// Recycling in all its forms: the result, the directories left, and how many files came free.
TEST(GroupRecords, RecyclesAndRemovesEmptiedDirectories) {
  using Operation = int (*)(FmgrRepositoryGroup&);
  const auto expectLeft = [](Operation operation, const std::vector<Names>& directories, int result,
                             const std::vector<int>& left, int free) {
    Disk disk(kCache, directories);
    const std::set<unsigned long> inodes = InodesOf(disk.path);
    EXPECT_EQ(result, operation(disk.group));
    EXPECT_EQ(left, disk.Indexes());
    EXPECT_EQ(left.size() + 1, NamesIn(disk.path).size());  // besides the pool
    EXPECT_EQ(free, disk.group.GetFreeFileCount());
    ExpectEachInOnePlace(disk.path, inodes);
  };
  const Operation oldest = [](FmgrRepositoryGroup& group) { return group.RemoveOldestRecordFile(); };
  const Operation due = [](FmgrRepositoryGroup& group) { return group.RemoveTimeOverRecordFile(0x5f5e2001); };
  const Operation exists = [](FmgrRepositoryGroup& group) { return group.IsExistTimeOverFile(0x5f5e2258); };
  expectLeft(oldest, {}, 0, {}, 0);
  expectLeft(oldest, {{}, {}}, 0, {}, 0);
  expectLeft(oldest, {{}, {}, kTwo}, 1, {3}, 1);
  expectLeft(oldest, {kOne, kTwo}, 1, {2}, 1);
  expectLeft(due, {kOne, kTwo}, 1, {2}, 1);
  expectLeft(due, {{}, kTwo}, 1, {2}, 1);
  expectLeft(due, {{}, {}, kTwo}, 0, {2, 3}, 0);  // clears away one empty directory at most: deliberate
  expectLeft(due, {{"5f5e2001_5f5e2258_cmf.imf"}}, 1, {1}, 0);
  expectLeft(exists, {{}, kTwo}, 1, {2}, 0);
  expectLeft(exists, {{"5f5e2000_5f5e2259_cmf.imf"}}, 0, {1}, 0);
}

// A count that fails says nothing about a directory: it must not be removed as an empty one.
TEST(GroupRecords, FailingDriverCostsNoDirectory) {
  Disk disk(kCache, {kOne, kTwo});
  flc_spy::gAnswer = [](unsigned long, void*, int& result) { return result = -1, true; };
  disk.group.RemoveOldestRecordFile();
  disk.group.RemoveTimeOverRecordFile(INT_MAX);
  EXPECT_EQ(0, disk.group.IsExistTimeOverFile(INT_MAX));
  flc_spy::gAnswer = nullptr;
  EXPECT_EQ(3, disk.group.GetRecordFileCount());
  EXPECT_EQ(3u, InodesOf(disk.path).size());
}

}  // namespace
