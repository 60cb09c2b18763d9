// All repositories of one disk: its data directories in order, and the record files across them.
#include <climits>
#include <filesystem>

#include "FlcSpy.h"
#include "ImfFile.h"
#include "TestDirectory.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace fs = std::filesystem;

namespace {

constexpr int kList = 0;
constexpr int kCache = 1;
constexpr char kUnit[] = "FmgrRepositoryGroup";
const Names kOne = {"5f5e1000_5f5e1258_cmf.imf"};
const Names kTwo = {"5f5e2000_5f5e2258_cmf.imf", "5f5e3000_5f5e3258_cmf.imf"};

// A disk with data directories 1, 2, ... of the given record files, listed. An empty one has a file that is no
// recording.
struct Disk {
  Disk(int mode, const std::vector<Names>& directories, int freeFiles = 0)
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
  struct : ImfSegmentCloseInterface {
    void OnSegmentClosed(ImfFile&) override {}
  } closer;
  RecordingObserver observer;
  for (const int mode : {kList, kCache}) {
    Disk disk(mode, {});
    for (const char* name : {"data_2", "data_10", "data_9"}) fs::create_directory(disk.path + "/" + name);
    disk.group.mTempRoot = "/tmp/root";
    disk.group.mParamA = &observer;
    disk.group.mParamB = &closer;
    EXPECT_EQ(1, disk.group.DataRepositoryListUp(disk.path));
    EXPECT_EQ(1, disk.group.MakeDataRepository(-1, 1));
    EXPECT_EQ((std::vector<int>{2, 9, 10, 11}), disk.Indexes());
    for (const FmgrDataRepository* each : disk.group.mDataRepositories) {
      EXPECT_EQ("/tmp/root", each->mLinkRoot);
      EXPECT_EQ(&observer, each->mRecoveryObserver);
      EXPECT_EQ(each->Index() == 11 ? nullptr : &closer,
                each->mSegmentClose);  // new, nothing to repair: deliberate
    }
  }
}

TEST(Group, NamesOfDisks) {
  EXPECT_EQ("", FmgrRepositoryGroup("/tmp/none/", 1, 0).mName);
  FmgrRepositoryGroup plain("none", 1, 1), joined("/tmp/none", "sdb1", 1, 0);
  EXPECT_EQ("", plain.mName);
  EXPECT_NE("", StderrOf([&] { plain.WatchDirectory(); }));  // no watch was set up
  EXPECT_EQ("/tmp/none/sdb1 sdb1", joined.Path() + " " + joined.mName);
}

TEST(Group, MakesDataDirectories) {
  TestRoot root;
  const std::string disk = root.Path() + "/usbdisk12", blocked = disk + "/data_00000006/";
  fs::create_directories(blocked);
  FmgrRepositoryGroup group(disk, kCache, 0);
  flc_spy::Clear();
  const auto expectMade = [&group](int index, int make, int result, const std::string& lines) {
    ExpectSays(lines, result, [&] { return group.MakeDataRepository(index, make); });
  };
  const auto invalid = [](const std::string& last) {
    return ErrLine(kUnit, 134, "Invalid parameter. last index(" + last + "), new index(" + last + ")\n");
  };
  expectMade(-1, 1, 1, "");
  expectMade(5, 1, 1, "");
  expectMade(5, 1, 0, invalid("5"));
  expectMade(
      6, 1, 0,
      ErrLine("FmgrDataRepository", 294, "Can't create data repository! (" + blocked + ") already exist\n") +
          ErrLine(kUnit, 151, "Can't create data repository '" + blocked + "'\n"));
  expectMade(INT_MAX, 0, 1, "");  // somebody else's: nothing is made, nobody told
  expectMade(-1, 1, 0, invalid("2147483647"));
  EXPECT_EQ(3, group.GetDataRepositoryCount());
  EXPECT_EQ((Names{"303 usbdisk1 1", "303 usbdisk1 5"}), flc_spy::Sent());
  EXPECT_EQ((Names{"data_00000001", "data_00000005", "data_00000006"}), NamesIn(disk));
}

TEST(Group, RemovesDataDirectories) {
  Disk disk(kList, {{}, kOne, {}});
  FmgrRepositoryGroup& group = disk.group;
  const std::string second = disk.path + "/data_2/",
                    none = "Can't remove data repository! Data repository is not found";
  ExpectSays(DbgLine("Oldest repository removed '" + disk.path + "/data_1/'\n"), 1,
             [&] { return group.RemoveOldestDataRepository(); });
  ExpectSays(ErrLine("FmgrDataRepository", 1025,
                     "Remove data repository failure! '" + second + "' is not empty! file count(1)\n") +
                 ErrLine(kUnit, 295, "Can't remove data repository '" + second + "'\n"),
             0, [&] { return group.RemoveOldestDataRepository(); });
  for (const int index : {7, 3, 2}) EXPECT_EQ(1, group.RemoveRepositoryInstance(index));
  EXPECT_EQ((Names{"data_2", "data_3", "imf_free"}), NamesIn(disk.path));  // only forgotten
  ExpectSays(ErrLine(kUnit, 287, none), 0, [&] { return group.RemoveOldestDataRepository(); });
  ExpectSays(ErrLine(kUnit, 312, none), 0, [&] { return group.RemoveRepositoryInstance(2); });
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

TEST(Group, SizeAndSuccessionOfRecordings) {
  Disk disk(kCache, {{}, kTwo, kOne}, 1);
  fs::resize_file(disk.path + "/imf_free/00000000.imf", 100);
  EXPECT_EQ(100, disk.group.GetFileSize());
  disk.group.mFreeRepository.files.clear();
  EXPECT_EQ(4096, disk.group.GetFileSize());
  ExpectSays(DbgLine("current time is conflict with last repository!! new stream time(0x5f5e1252) last time("
                     "0x5f5e1258)\n"),
             1, [&] { return disk.group.IsNeedChangeRepository(0x5f5e1258 - 6); });
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
  expectAnswers({b, zero, a}, {0x10, 3, 0x10, 1, 0x10, 0x30});
  expectAnswers({zero, b}, {0x20, 1, 0, 1, 0x20, 0x30});
  expectAnswers({open, none}, {-1, 1, 8, 0, 0, 0});  // no end is known
}

TEST(GroupRecords, MakesOnlyInTheLastDirectoryAndOverwritesNothing) {
  Disk disk(kCache, {kOne, {}}, 1), bare(kCache, {}, 1);
  timeval start{0x5f5e2000, 0};
  std::string path;
  EXPECT_EQ(1, disk.group.MakeRecordFile(start, path));
  EXPECT_EQ(disk.path + "/data_2/5f5e2000_00000000.imf", path);
  ExpectSays(ErrLine(kUnit, 169, "Can't make record file, current free file count is 0\n"), 0,
             [&] { return disk.group.MakeRecordFile(start, path); });
  ExpectSays(ErrLine(kUnit, 175, "Can't make record file, current data repository count is 0\n"), 0,
             [&] { return bare.group.MakeRecordFile(start, path); });
}

// Recycling in all its forms: the result, the directories left, how many files came free, and its error line.
TEST(GroupRecords, RecyclesAndRemovesEmptiedDirectories) {
  using Operation = int (*)(FmgrRepositoryGroup&);
  const auto expectLeft = [](Operation operation, const std::vector<Names>& directories, int result,
                             const std::vector<int>& left, int free, int line = 0,
                             const std::string& what = "") {
    Disk disk(kCache, directories);
    const std::set<unsigned long> inodes = InodesOf(disk.path);
    const std::string log = StderrOf([&] { EXPECT_EQ(result, operation(disk.group)); });
    EXPECT_EQ(left, disk.Indexes());
    EXPECT_EQ(left.size() + 1, NamesIn(disk.path).size());  // besides the pool
    EXPECT_EQ(free, disk.group.GetFreeFileCount());
    ExpectEachInOnePlace(disk.path, inodes);
    const std::string error =
        ErrLine(kUnit, line, "Can't remove " + what + " record file! data repository is not found\n");
    EXPECT_EQ(line != 0, log.find(error) != std::string::npos) << log;
  };
  const Operation oldest = [](FmgrRepositoryGroup& group) { return group.RemoveOldestRecordFile(); };
  const Operation due = [](FmgrRepositoryGroup& group) { return group.RemoveTimeOverRecordFile(0x5f5e2001); };
  const Operation exists = [](FmgrRepositoryGroup& group) { return group.IsExistTimeOverFile(0x5f5e2258); };
  expectLeft(oldest, {}, 0, {}, 0, 186, "oldest");
  expectLeft(oldest, {{}, {}}, 0, {}, 0, 201, "oldest");
  expectLeft(oldest, {{}, {}, kTwo}, 1, {3}, 1);
  expectLeft(oldest, {kOne, kTwo}, 1, {2}, 1);
  expectLeft(due, {}, 0, {}, 0, 223, "timeover");
  expectLeft(due, {{}}, 0, {}, 0, 238, "timeover");
  expectLeft(due, {kOne, kTwo}, 1, {2}, 1);
  expectLeft(due, {{}, kTwo}, 1, {2}, 1);
  expectLeft(due, {{}, {}, kTwo}, 0, {2, 3}, 0);  // clears away one empty directory at most: deliberate
  expectLeft(due, {{"5f5e2001_5f5e2258_cmf.imf"}}, 1, {1}, 0);
  expectLeft(exists, {{}, kTwo}, 1, {2}, 0);
  expectLeft(exists, {{"5f5e2000_5f5e2259_cmf.imf"}}, 0, {1}, 0);
  expectLeft(exists, {{}, {}}, 0, {}, 0);
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
