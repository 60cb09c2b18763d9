// One data directory: its life, its list, and record files in and out. What does not depend on where the list
// is kept runs with both lists.

#include "tests/support/FlcSpy.h"
#include "tests/support/TestDirectory.h"

namespace {

constexpr int kIndex = 3;
constexpr uint32_t kStart = 0x5f5e1000;

// Unfinished with end 0.
std::string Name(uint32_t start, uint32_t end, uint32_t mask = 3) {
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, FlcFileParam("", 0, start, end, mask));
  return name;
}

class DataRepository : public DirectoryTest {
 protected:
  DataRepository() : DirectoryTest("d1", 6, kIndex) {
    mRepository.mRecoveryObserver = &mObserver;
    flc_spy::Clear();
  }
  ~DataRepository() override { flc_spy::gAnswer = nullptr; }

  bool Cached() const { return GetParam() == kCache; }
  std::string PathOf(const std::string& name) const { return mPath + name; }

  // Makes a record file for each start, completed ten seconds later unless it is the last. Returns their names.
  Names Record(const std::vector<uint32_t>& starts) {
    std::string path;
    for (const uint32_t start : starts) {
      timeval time{start, 999999};
      EXPECT_EQ(1, mRepository.MakeRecordFile(time, path));
      if (start == starts.back()) break;
      EXPECT_EQ(1, mRepository.RenameRecordFile(path, static_cast<int>(start + 10), 3, path));
    }
    return NamesIn(mPath);
  }

  // Expects list and directory to hold these, and every file of the disk in exactly one place.
  void ExpectRecords(const Names& names) {
    EXPECT_EQ(names, NamesIn(mPath));
    EXPECT_EQ(static_cast<int>(names.size()), mRepository.GetFileCount());
    EXPECT_EQ(names.empty(), mRepository.IsEmpty());
    ExpectEachInOnePlace(mDisk, mInodes);
    if (names.empty()) return;
    EXPECT_EQ(names.front(), mRepository.GetOldestFile());
    EXPECT_EQ(names.back(), mRepository.GetNewestFile());
  }

  // Runs an operation that must fail and leave every file and entry alone.
  template <typename Operation>
  void ExpectRefusal(Operation operation) {
    const Names before = NamesIn(mPath);
    const int count = mRepository.GetFileCount();
    EXPECT_EQ(0, static_cast<int>(operation()));
    EXPECT_EQ(before, NamesIn(mPath));
    EXPECT_EQ(count, mRepository.GetFileCount());
  }
};
INSTANTIATE_TEST_SUITE_P(With, DataRepository, testing::Values(kList, kCache));

class ListedDataRepository : public DataRepository {};
INSTANTIATE_TEST_SUITE_P(With, ListedDataRepository, testing::Values(kList));

// --- Life of the directory ---

TEST_P(DataRepository, MadeOnceAndRemovedWhenEmpty) {
  EXPECT_EQ(mDisk + "/data_00000003/", mPath);
  const FmgrDataRepository other(mDisk, 4, nullptr, nullptr, GetParam());
  EXPECT_FALSE(fs::exists(other.Path())) << "the constructor makes nothing";
  Record({kStart});
  ExpectRefusal([&] { return mRepository.Make(); });
  MakeTestFile(mPath + "search.fdb");
  ExpectRefusal([&] { return mRepository.Remove(); });

  EXPECT_EQ(1u, mRepository.RemoveLatestRecordFile(0));
  EXPECT_EQ(1u, mRepository.Remove());
  EXPECT_EQ(FLC_UNREGISTER_REPOSITORY, flc_spy::Requests().back().number) << "with either list";
  EXPECT_FALSE(fs::exists(mPath));
  ExpectEachInOnePlace(mDisk, mInodes);
}

// A shell that takes a path apart would remove something else.
TEST_P(DataRepository, RemovesItsOwnDirectoryOnly) {
  const std::string kept = MakeTestFile(mRoot.Path() + "/disk/a/data_00000003/kept");
  for (const char* name : {"a /", "a b", "a;rm -rf d1", "a'b", "$(rm -rf d1)", "*", "a\nb"}) {
    FmgrDataRepository repository(mRoot.Path() + "/disk/" + name, kIndex, nullptr, nullptr, kList);
    MakeTestFile(repository.SearchDbPath());
    EXPECT_EQ(1u, repository.Remove());
    EXPECT_FALSE(fs::exists(repository.Path())) << name;
    EXPECT_TRUE(fs::exists(kept) && fs::exists(mDisk + "/imf_free")) << name;
  }
}

// A driver that does not answer does not mean "empty", but doesn't keep an empty directory either.
TEST_P(DataRepository, DriverFails) {
  flc_spy::gAnswer = [](unsigned long, void*, int& result) { return (result = -1) < 0; };
  EXPECT_EQ(!Cached(), mRepository.IsEmpty());
  EXPECT_EQ(1u, mRepository.Remove());
  EXPECT_FALSE(fs::exists(mPath));
}

// Each unfinished file is seen to while it is the newest of the list: what is given back to the pool (these
// hold nothing but zeros) is that file, and not a recording that is listed after it.
TEST_P(ListedDataRepository, ListingRepairsEveryUnfinishedFile) {
  const Names kept = {Name(kStart + 10, kStart + 15), Name(kStart + 30, kStart + 35)};
  for (const std::string& name : {Name(kStart, 0), kept[0], Name(kStart + 20, 0), kept[1]})
    fs::rename(mDirectory.free.Pop(), PathOf(name));
  EXPECT_EQ(1, mRepository.RecordFileListUp());
  EXPECT_EQ(Names({"stage 2 1", "stage 2 0", "stage 2 1", "stage 2 0"}), mObserver.heard);
  ExpectRecords(kept);
}

// --- Record files in and out ---

TEST_P(DataRepository, MakesRecordFiles) {
  const std::string name = "5f5e1000_00000000.imf";
  std::string made;
  timeval time{kStart, 999999};
  EXPECT_EQ(1, mRepository.MakeRecordFile(time, made));
  EXPECT_EQ(PathOf(name), made);
  ExpectRecords({name});

  // Deliberate: nothing guards a second that was used before.
  EXPECT_EQ(1, mRepository.MakeRecordFile(time, made));
  EXPECT_EQ(Names{name}, NamesIn(mPath));
  EXPECT_EQ(mInodes.size() - 1, InodesOf(mDisk).size());
}

TEST_P(DataRepository, CompletesRecordFiles) {
  const Names names = Record({kStart, kStart + 20});
  std::string path = PathOf(names[1]);
  EXPECT_EQ(1, mRepository.RenameRecordFile(path, -1, 0x80000001, path)) << "one string as both arguments";
  EXPECT_EQ(PathOf("5f5e1014_ffffffff_cm80000001.imf"), path);
  ExpectRecords({names[0], "5f5e1014_ffffffff_cm80000001.imf"});

  // The file is gone and not in the list: deliberately not noticed, and the driver is told all the same.
  EXPECT_EQ(1, mRepository.RenameRecordFile("/gone/1_00000000.imf", 2, 0, path));
  EXPECT_EQ(PathOf("1_2_cm0.imf"), path);
  EXPECT_EQ(Cached() ? 3 : 2, mRepository.GetFileCount());
  EXPECT_EQ(2u, NamesIn(mPath).size());
}

TEST_P(DataRepository, RecyclesFromBothEnds) {
  const Names names = Record({kStart, kStart + 20, kStart + 40, kStart + 60});
  ExpectRecords(names);
  EXPECT_EQ(1u, mRepository.RemoveOldestRecordFile());
  ExpectRecords({names[1], names[2], names[3]});
  EXPECT_EQ(1u, mRepository.RemoveLatestRecordFile(1));
  EXPECT_EQ(1u, mRepository.RemoveLatestRecordFile(0));
  ExpectRecords({names[1]});
  EXPECT_EQ(1u, mRepository.MoveLatestRecordFileToErrorRepository(1));
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
  fs::rename(mDisk + "/imf_free", mDisk + "/away");
  ExpectRefusal(remove);
  fs::rename(mDisk + "/away", mDisk + "/imf_free");
  EXPECT_EQ(1u, remove());
  ExpectEachInOnePlace(mDisk, mInodes);

  // Gone altogether, and the entry stays: the list is the callers' business.
  ExpectRefusal([&] { return mRepository.RemoveOldestRecordFile(); });
  const std::string log = StderrOf([&] { mRepository.RemoveLatestRecordFile(0); });
  EXPECT_TRUE(Has(log, "Can't remove oldest record file!")) << "deliberate: not \"latest\"";
}

TEST_P(DataRepository, QuarantineDropsTheNewestEntry) {
  const Names names = Record({kStart, kStart + 20});
  MakeTestFile(mDisk + "/imf_error");  // a file where the directory should be
  const auto move = [&] { return mRepository.MoveRecordFileToErrorRepository(PathOf(names[0]), 1); };
  ExpectRefusal(move);
  ExpectRefusal([&] { return mRepository.MoveLatestRecordFileToErrorRepository(0); });
  fs::remove(mDisk + "/imf_error");
  EXPECT_EQ(1u, move());  // deliberate: whichever file was moved, the newest entry goes
  EXPECT_EQ(Names{names[0]}, NamesIn(mDisk + "/imf_error"));
  EXPECT_EQ(names[0], mRepository.GetNewestFile());
  EXPECT_EQ("removed " + PathOf(names[0]) + " 5f5e1000 5f5e100a 3", mObserver.heard.back());
  ExpectEachInOnePlace(mDisk, mInodes);
}

}  // namespace
