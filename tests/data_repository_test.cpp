// One data directory: its life, its list, and record files in and out. What does not depend on where the list
// is kept runs with both lists.
#include "fmgr/FmgrDataRepository.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FlcSpy.h"
#include "TestDisk.h"
#include "fmgr/FmgrErrorRepository.h"
#include "fmgr/FmgrFreeRepository.h"

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

namespace {

constexpr char kUnit[] = "FmgrDataRepository";
constexpr int kIndex = 3;
constexpr uint32_t kStart = 0x5f5e1000;

// Unfinished with end 0.
std::string Name(uint32_t start, uint32_t end, uint32_t mask = 3) {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, FlcFileParam("", 0, start, end, mask));
  return name;
}

class DataRepository : public testing::TestWithParam<bool> {
 protected:
  DataRepository() {
    mRepository.mRecoveryObserver = &mObserver;
    flc_spy::Clear();
  }
  ~DataRepository() override { flc_spy::gAnswer = nullptr; }

  bool Cached() const { return GetParam(); }
  std::string PathOf(const std::string& name) const { return mRepository.Path() + name; }

  // Makes the directory, and in it a record file for each start, completed ten seconds later unless it is the
  // last. Returns their names.
  Names Record(const std::vector<uint32_t>& starts) {
    EXPECT_EQ(1, mRepository.Make());
    std::string path;
    for (const uint32_t start : starts) {
      timeval time{start, 999999};
      EXPECT_EQ(1, mRepository.MakeRecordFile(time, path));
      if (start == starts.back()) break;
      EXPECT_EQ(1, mRepository.RenameRecordFile(path, static_cast<int>(start + 10), 3, path));
    }
    flc_spy::Clear();
    return NamesIn(mRepository.Path());
  }

  // Expects the driver to have been told this much, "+START END MASK" or "-START" each, and nothing in list
  // mode.
  void ExpectTold(const Names& expected) {
    Names told;
    for (const auto& [number, file, directory] : flc_spy::Requests()) {
      if (number != FLC_ADD_FILE && number != FLC_REMOVE_FILE) continue;
      char text[64];
      std::snprintf(text, sizeof text, "+%x %x %x", file.startTime, file.endTime, file.channelMask);
      if (number == FLC_REMOVE_FILE) std::snprintf(text, sizeof text, "-%x", file.startTime);
      told.push_back(text);
      EXPECT_EQ("d1", std::string(file.diskName));
      EXPECT_EQ(kIndex, file.repository);
    }
    EXPECT_EQ(Cached() ? expected : Names(), told);
    flc_spy::Clear();
  }

  // Expects list and directory to hold these, and every file of the disk in exactly one place.
  void ExpectRecords(const Names& names) {
    EXPECT_EQ(names, NamesIn(mRepository.Path()));
    EXPECT_EQ(static_cast<int>(names.size()), mRepository.GetFileCount());
    EXPECT_EQ(names.empty(), mRepository.IsEmpty());
    ExpectEachInOnePlace(mDisk, mInodes);
    if (names.empty()) return;
    EXPECT_EQ(names.front(), mRepository.GetOldestFile());
    EXPECT_EQ(names.back(), mRepository.GetNewestFile());
  }

  // Runs an operation that must fail with these lines and leave every file and entry alone.
  template <typename Operation>
  void ExpectRefusal(const std::string& lines, Operation operation) {
    const Names before = NamesIn(mRepository.Path());
    const int count = mRepository.GetFileCount();
    ExpectSays(lines, 0, operation);
    EXPECT_EQ(before, NamesIn(mRepository.Path()));
    EXPECT_EQ(count, mRepository.GetFileCount());
  }

  std::string CantPush(const std::string& path, int index) const {
    return DbgLine("Can't move from '" + path + "' to '" + mDisk + "/imf_free/0000000" + std::to_string(index) +
                   ".imf'. (No such file or directory)\n");
  }

  TestRoot mRoot;
  const std::string mDisk = mRoot.AddDisk("d1", 6);
  const std::set<unsigned long> mInodes = InodesOf(mDisk);
  RecordingObserver mObserver;
  FmgrFreeRepository mFree{mDisk};
  FmgrErrorRepository mError{mDisk};
  FmgrDataRepository mRepository{mDisk, kIndex, &mFree, &mError, GetParam()};
};
INSTANTIATE_TEST_SUITE_P(With, DataRepository, testing::Bool());  // 1: the driver's list, 0: the one in memory

class ListedDataRepository : public DataRepository {};
INSTANTIATE_TEST_SUITE_P(With, ListedDataRepository, testing::Values(false));

// --- Life of the directory ---

TEST_P(DataRepository, ExistingDirectories) {
  for (const char* name : {"data_7", "data_00000007", "data_old_7"})
    EXPECT_EQ(7, FmgrDataRepository(mDisk, name, &mFree, &mError, Cached()).Index()) << name;
  const auto expectHalfBuilt = [&](FmgrFreeRepository* free, FmgrErrorRepository* error, int line,
                                   const std::string& message) {
    ExpectSays(ErrLine(kUnit, line, message), -1, [&] {
      const FmgrDataRepository half(mDisk, "dataX", free, error, Cached());
      EXPECT_EQ(0, half.GetFileCount()) << "the driver is not asked about directory -1: any";
      return half.Index();
    });
  };
  expectHalfBuilt(nullptr, nullptr, 32, "Invalid parameter. free repository is not initialized\n");
  expectHalfBuilt(&mFree, nullptr, 38, "Invalid parameter. error repository is not initialized\n");
  expectHalfBuilt(&mFree, &mError, 51, "invalid data repository name 'dataX'\n");
}

TEST_P(DataRepository, MadeOnceAndRemovedWhenEmpty) {
  const std::string path = mDisk + "/data_00000003/";
  EXPECT_FALSE(fs::exists(path)) << "the constructor makes nothing";
  Record({kStart});
  EXPECT_EQ(4096, mRepository.GetFileSize());
  ExpectRefusal(ErrLine(kUnit, 294, "Can't create data repository! (" + path + ") already exist\n"),
                [&] { return mRepository.Make(); });
  MakeTestFile(path + "search.fdb");
  EXPECT_EQ(1u, mRepository.IsExistFile(mRepository.SearchDbPath().c_str()));
  EXPECT_EQ(0u, mRepository.IsExistFile(path.c_str()));
  const std::string message = "Remove data repository failure! '" + path + "' is not empty! file count(1)\n";
  ExpectRefusal(ErrLine(kUnit, 1025, message), [&] { return mRepository.Remove(); });

  EXPECT_EQ(1u, mRepository.RemoveLatestRecordFile(0));
  EXPECT_EQ(0, mRepository.GetFileSize());
  EXPECT_EQ(1u, mRepository.Remove());
  EXPECT_EQ(FLC_UNREGISTER_REPOSITORY, flc_spy::Requests().back().number) << "with either list";
  EXPECT_EQ(kIndex, flc_spy::Requests().back().repository.repository);
  EXPECT_FALSE(fs::exists(path));
  ExpectEachInOnePlace(mDisk, mInodes);
  MakeTestFile(mDisk + "/data_00000003");
  ExpectSays(ErrLine("FmgrRepository", 41, "Fail to mkdir \"" + path + "\" (File exists)\n") +
                 ErrLine(kUnit, 300, "Can't create pre-allocation repository! (" + path + ")\n"),
             0, [&] { return mRepository.Make(); });
}

// A shell that takes a path apart would remove something else.
TEST_P(DataRepository, RemovesItsOwnDirectoryOnly) {
  const std::string kept = MakeTestFile(mRoot.Path() + "/disk/a/data_00000003/kept");
  for (const char* name : {"a /", "a b", "a;rm -rf d1", "a'b", "$(rm -rf d1)", "*", "a\nb"}) {
    FmgrDataRepository repository(mRoot.Path() + "/disk/" + name, kIndex, &mFree, &mError, 0);
    MakeTestFile(repository.SearchDbPath());
    ExpectSays("", 1, [&] { return repository.Remove(); });
    EXPECT_FALSE(fs::exists(repository.Path())) << name;
    EXPECT_TRUE(fs::exists(kept) && fs::exists(mDisk + "/imf_free")) << name;
  }
}

// A driver that does not answer does not mean "empty", but doesn't keep an empty directory either.
TEST_P(DataRepository, DriverFails) {
  EXPECT_EQ(1, mRepository.Make());
  flc_spy::gAnswer = [](unsigned long, void*, int& result) { return (result = -1) < 0; };
  EXPECT_EQ(!Cached(), mRepository.IsEmpty());
  EXPECT_EQ(1u, mRepository.Remove());
  EXPECT_FALSE(fs::exists(mRepository.Path()));

  FmgrDataRepository nameless(mDisk + "/", kIndex, &mFree, &mError, Cached());
  flc_spy::Clear();
  ExpectSays(Cached() ? ErrLine("include/Flc", 212, "Invalid parameter\n") : "", Cached() ? -1 : 0,
             [&] { return nameless.GetFileCount(); });
  EXPECT_TRUE(flc_spy::Requests().empty()) << "asked about a disk without a name";
}

TEST_P(DataRepository, ListsItsDirectory) {
  mRepository.mRecoveryObserver = nullptr;
  EXPECT_EQ(1, mRepository.RecordFileListUp()) << "no directory, no files";
  MakeTestFile(PathOf("search.fdb"));
  EXPECT_EQ(1, mRepository.RecordFileListUp());
  ExpectTold({});
  MakeTestFile(PathOf("5f5e100a_00000000.imf"));
  MakeTestFile(PathOf("5f5e1000_5f5e1009_cmf.imf"), 100);
  ExpectSays("", 1, [&] { return mRepository.RecordFileListUp(); });
  ExpectTold({"+5f5e1000 5f5e1009 f", "+5f5e100a 0 0"});
  EXPECT_EQ(2, mRepository.GetFileCount());
  EXPECT_EQ(100, mRepository.GetFileSize()) << "of the oldest";
}

// Each unfinished file is seen to while it is the newest of the list: what is given back to the pool (these
// hold nothing but zeros) is that file, and not a recording that is listed after it.
TEST_P(ListedDataRepository, ListingRepairsEveryUnfinishedFile) {
  EXPECT_EQ(1, mRepository.Make());
  const Names kept = {Name(kStart + 10, kStart + 15), Name(kStart + 30, kStart + 35)};
  for (const std::string& name : {Name(kStart, 0), kept[0], Name(kStart + 20, 0), kept[1]})
    fs::rename(mFree.Pop(), PathOf(name));
  EXPECT_EQ(1, mRepository.RecordFileListUp());
  EXPECT_EQ(Names({"stage 2 1", "stage 2 0", "stage 2 1", "stage 2 0"}), mObserver.heard);
  ExpectRecords(kept);
}

// --- Record files in and out ---

TEST_P(DataRepository, MakesRecordFiles) {
  EXPECT_EQ(1, mRepository.Make());
  const std::string name = "5f5e1000_00000000.imf", free = mDisk + "/imf_free/00000000.imf";
  std::string made;
  timeval time{kStart, 999999};
  ExpectSays(DbgLine("create record file " + free + " => " + PathOf(name) + "\n"), 1,
             [&] { return mRepository.MakeRecordFile(time, made); });
  EXPECT_EQ(PathOf(name), made);
  ExpectTold({"+5f5e1000 0 0"});
  ExpectRecords({name});

  // Deliberate: nothing guards a second that was used before.
  EXPECT_EQ(1, mRepository.MakeRecordFile(time, made));
  EXPECT_EQ(Names{name}, NamesIn(mRepository.Path()));
  EXPECT_EQ(mInodes.size() - 1, InodesOf(mDisk).size());

  while (mFree.GetFileCount() > 0) mFree.Pop();
  ExpectRefusal("", [&] { return mRepository.MakeRecordFile(time, made); });
}

TEST_P(DataRepository, CompletesRecordFiles) {
  const Names names = Record({kStart, kStart + 20});
  std::string path = PathOf(names[1]);
  EXPECT_EQ(1, mRepository.RenameRecordFile(path, -1, 0x80000001, path)) << "one string as both arguments";
  EXPECT_EQ(PathOf("5f5e1014_ffffffff_cm80000001.imf"), path);
  ExpectTold({"-5f5e1014", "+5f5e1014 ffffffff 80000001"});
  ExpectRecords({names[0], "5f5e1014_ffffffff_cm80000001.imf"});

  // The file is gone and not in the list: deliberately not noticed, and the driver is told all the same.
  EXPECT_EQ(1, mRepository.RenameRecordFile("/gone/1_00000000.imf", 2, 0, path));
  EXPECT_EQ(PathOf("1_2_cm0.imf"), path);
  ExpectTold({"-1", "+1 2 0"});
  EXPECT_EQ(2u, NamesIn(mRepository.Path()).size());
}

TEST_P(DataRepository, RecyclesFromBothEnds) {
  const Names names = Record({kStart, kStart + 20, kStart + 40, kStart + 60});
  ExpectRecords(names);
  ExpectSays(DbgLine("remove record file " + PathOf(names[0]) + "\n"), 1,
             [&] { return mRepository.RemoveOldestRecordFile(); });
  ExpectTold({"-5f5e1000"});
  ExpectRecords({names[1], names[2], names[3]});
  EXPECT_EQ(1u, mRepository.RemoveLatestRecordFile(1));
  EXPECT_EQ(1u, mRepository.RemoveLatestRecordFile(0));
  ExpectTold({"-5f5e103c", "-5f5e1028"});
  ExpectRecords({names[1]});
  EXPECT_EQ(1u, mRepository.MoveLatestRecordFileToErrorRepository(1));
  ExpectTold({"-5f5e1014"});
  ExpectRecords({});
  EXPECT_EQ(Names{names[1]}, NamesIn(mDisk + "/imf_error"));
  // Only mode 1 tells the observer; the oldest is always told.
  EXPECT_EQ(Names({"removed " + PathOf(names[0]) + " 5f5e1000 5f5e100a 3",
                   "removed " + PathOf(names[3]) + " 5f5e103c 0 0",
                   "removed " + PathOf(names[1]) + " 5f5e1014 5f5e101e 3"}),
            mObserver.heard);
}

TEST_P(DataRepository, RemovesWhatIsOverTime) {
  const uint32_t high = 0xf0000000;  // starts and limits have no sign here
  const Names names = Record({kStart, kStart + 20, high, high + 20, high + 40});
  // Deliberate: with the list in memory no time is looked at.
  const std::vector<std::pair<long, int>> limitsAndLeft = {{kStart, Cached() ? 5 : 4},
                                                           {kStart + 1, Cached() ? 4 : 3},
                                                           {-1, Cached() ? 3 : 2},
                                                           {high, Cached() ? 3 : 1}};
  for (const auto& [limit, left] : limitsAndLeft) {
    EXPECT_EQ(1u, mRepository.RemoveTimeOverRecordFile(limit));
    ExpectRecords(Names(names.end() - left, names.end()));
  }
  EXPECT_EQ(Cached() ? 2u : 4u, mObserver.heard.size());
  // The entry goes first, so a file that can't be moved is lost to the list until the next start.
  fs::remove_all(mDisk + "/imf_free");
  const int count = mRepository.GetFileCount();
  EXPECT_EQ(0u, mRepository.RemoveTimeOverRecordFile(high + 21L));
  EXPECT_EQ(count - 1, mRepository.GetFileCount());
}

TEST_P(DataRepository, RemovesAFileThatWasCompletedMeanwhile) {
  const std::string old = PathOf(Record({kStart})[0]), now = PathOf(Name(kStart, kStart + 5));
  fs::rename(old, now);
  const auto remove = [&] { return mRepository.RemoveRecordFile(Name(kStart, 0), 0); };
  const std::string found =
      DbgLine("search file by start_time\n") + DbgLine("founded file name is '" + now + "'\n");
  fs::rename(mDisk + "/imf_free", mDisk + "/away");
  ExpectRefusal(
      CantPush(old, 6) + found + CantPush(now, 6) + ErrLine(kUnit, 389, "Can't remove record file!!\n"),
      remove);
  fs::rename(mDisk + "/away", mDisk + "/imf_free");
  ExpectSays(CantPush(old, 6) + found + DbgLine("remove record file " + old + "\n"), 1, remove);
  ExpectEachInOnePlace(mDisk, mInodes);

  // Gone altogether, and the entry stays: the list is the callers' business, and they say so too.
  const std::string gone = CantPush(old, 7) + ErrLine(kUnit, 394, "Can't remove record file!!\n");
  ExpectRefusal(gone, [&] { return mRepository.RemoveOldestRecordFile(); });
  ExpectRefusal(
      gone + ErrLine(kUnit, 471, "Can't remove oldest record file!\n"),  // deliberate: "oldest" here too
      [&] { return mRepository.RemoveLatestRecordFile(0); });
}

TEST_P(DataRepository, QuarantineDropsTheNewestEntry) {
  const Names names = Record({kStart, kStart + 20});
  const std::string path = mDisk + "/imf_error/", message = "Can't move record file to error repository!!\n";
  MakeTestFile(mDisk + "/imf_error");  // a file where the directory should be
  const std::string failed =
      ErrLine("FmgrRepository", 41, "Fail to mkdir \"" + path + "\" (File exists)\n") +
      ErrLine("FmgrErrorRepository", 82, "Can't create error repository! (" + path + ")\n");
  const auto move = [&] { return mRepository.MoveRecordFileToErrorRepository(PathOf(names[0]), 1); };
  ExpectRefusal(failed + ErrLine(kUnit, 1253, message), move);
  ExpectRefusal(failed + ErrLine(kUnit, 517, message),
                [&] { return mRepository.MoveLatestRecordFileToErrorRepository(0); });
  fs::remove(mDisk + "/imf_error");
  EXPECT_EQ(1u, move());  // deliberate: whichever file was moved, the newest entry goes
  ExpectTold({"-5f5e1014"});
  EXPECT_EQ(Names{names[0]}, NamesIn(path));
  EXPECT_EQ(names[0], mRepository.GetNewestFile());
  EXPECT_EQ("removed " + PathOf(names[0]) + " 5f5e1000 5f5e100a 3", mObserver.heard.back());
  ExpectEachInOnePlace(mDisk, mInodes);
}

TEST_P(DataRepository, WithoutFilesOrPools) {
  EXPECT_EQ(1, mRepository.Make());
  ExpectRefusal("", [&] { return mRepository.RemoveLatestRecordFile(1); });
  ExpectRefusal("", [&] { return mRepository.MoveRecordFileToErrorRepository("/x/1_2_cm3.imf", 1); });
  ExpectRefusal("", [&] { return mRepository.MoveLatestRecordFileToErrorRepository(1); });

  MakeTestFile(PathOf(Name(kStart, kStart + 9)));
  FmgrDataRepository poolless(mDisk, kIndex, nullptr, nullptr, Cached());
  EXPECT_EQ(1, poolless.RecordFileListUp());
  const std::string cantRemove =
      "Can't remove oldest record file! repo_path(" + PathOf("") + ") file_count(1)\n";
  const std::string cantMove = "Can't move oldest record file to error repository!\n";
  ExpectRefusal(ErrLine(kUnit, 408, cantRemove), [&] { return poolless.RemoveOldestRecordFile(); });
  ExpectRefusal(ErrLine(kUnit, 435, cantRemove), [&] { return poolless.RemoveTimeOverRecordFile(9); });
  ExpectRefusal("", [&] { return poolless.RemoveLatestRecordFile(1); });
  ExpectRefusal(ErrLine(kUnit, 1237, cantMove),
                [&] { return poolless.MoveRecordFileToErrorRepository("/x", 1); });
  ExpectRefusal(ErrLine(kUnit, 500, cantMove),
                [&] { return poolless.MoveLatestRecordFileToErrorRepository(1); });
}

}  // namespace
