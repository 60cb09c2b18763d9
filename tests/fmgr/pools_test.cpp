// The pools of one disk: laying the files down, the free pool, the quarantine.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <list>
#include <memory>
#include <tuple>

#include "fmgr/FmgrErrorRepository.h"
#include "fmgr/FmgrFreeRepository.h"
#include "fmgr/FmgrPreAllocRepository.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "tests/support/TestDisk.h"

using List = std::list<std::string>;

namespace {
int gEntriesBeforeError = INT_MAX;  // that directories still give
}

// Stands in front of the C library's, for the file manager as well. The headers may call it readdir64.
dirent* readdir(DIR* directory) {
  static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir64"));
  if (gEntriesBeforeError-- > 0) return real(directory);
  errno = EIO;
  return nullptr;
}

namespace {

constexpr int kMiB = 1 << 20;

int ReservedOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
  return static_cast<int>(status.st_blocks * 512);
}

class Progress : public ProgressIndicator {
 public:
  void BeginStage(int total, int stage) override { begun = {total, stage}; }
  void Refresh() override {
    refreshed += std::to_string(mCurrent);
    if (list != nullptr) list->clear();
  }

  std::pair<int, int> begun;
  std::string refreshed;
  List* list = nullptr;  // emptied by each redraw
};

class Pools : public testing::Test {
 protected:
  Pools() { fs::create_directories(mDisk); }

  // A pool over a disk that holds these files.
  FmgrFreeRepository PoolOf(const List& names) {
    for (const std::string& name : names) MakeTestFile(mDisk + "/imf_free/" + name);
    return FmgrFreeRepository(mDisk);
  }
  // A new recording goes in; no file but those that were there is replaced.
  int Push(FmgrFreeRepository* pool, int size = 4096) {
    std::string source = MakeTestFile(mDisk + "/data_00000001/5f5e1000_5f5e1258_cmf.imf", size);
    const std::set<unsigned long> inodes = InodesOf(mDisk);
    const int result = pool->Push(source);
    ExpectEachInOnePlace(mDisk, inodes);
    return result;
  }

  TestRoot mRoot;
  const std::string mDisk = mRoot.Path() + "/disk/d";
};

// --- Laying down ---

TEST_F(Pools, PreAllocationRefuses) {
  FmgrPreAllocRepository repository(mDisk);
  EXPECT_EQ(1u, repository.Make(1, 0, nullptr));  // no files: the directory alone
  EXPECT_EQ(0u, repository.Make(1, 1, nullptr));
  EXPECT_TRUE(NamesIn(repository.path).empty());
  // Deliberate: the size is 32 bits wide, so 4096 MiB is nothing, and nothing can't be reserved.
  fs::remove(repository.path);
  EXPECT_EQ(0u, repository.Make(4096, 1, nullptr));
}

// The caller says how much was made, so the list has to be what is there in full; and nothing is taken back.
TEST_F(Pools, PreAllocationOnAFullDisk) {
  if (mount("none", mDisk.c_str(), "tmpfs", 0, "size=8m") != 0)
    GTEST_SKIP() << "nothing can be mounted here: nothing was tested";
  const std::shared_ptr<void> mounted(nullptr, [&](void*) { umount2(mDisk.c_str(), MNT_DETACH); });
  FmgrPreAllocRepository repository(mDisk);
  EXPECT_EQ(0u, repository.Make(3, 4, nullptr));
  const std::vector<std::string> names = NamesIn(repository.path);
  EXPECT_GE(repository.files.size(), 1u);
  ASSERT_EQ(repository.files.size() + 1, names.size()) << "the file that failed stays";
  for (const std::string& path : repository.files) EXPECT_GE(ReservedOf(path), 3 * kMiB) << path;
  EXPECT_LT(ReservedOf(repository.path + names.back()), 3 * kMiB);
}

// --- The free pool ---

TEST_F(Pools, FreePoolIsMadeOfHardLinks) {
  FmgrPreAllocRepository prealloc(mDisk);
  ASSERT_EQ(1u, prealloc.Make(1, 2, nullptr));
  for (const std::string& path : prealloc.files) EXPECT_GE(ReservedOf(path), kMiB) << "nothing but a length";
  prealloc.files.insert(std::next(prealloc.files.begin()), mDisk + "/gone");  // leaves a gap and no line
  FmgrFreeRepository pool(mDisk);
  EXPECT_EQ(1, pool.Make(prealloc, nullptr));
  FmgrFreeRepository fresh(mDisk);
  EXPECT_EQ((List{"00000000.imf", "00000002.imf"}), fresh.files);
  EXPECT_EQ(kMiB, fresh.GetFileSize());
  EXPECT_TRUE(fs::equivalent(prealloc.files.back(), fresh.FileNameToPath("00000002.imf")));

  const std::string path = mDisk + "/imf_free/";
  fs::remove(path + "00000000.imf");
  EXPECT_EQ(0, fresh.Make(prealloc, nullptr));
  EXPECT_EQ(1u, NamesIn(path).size()) << "nothing is linked";
}

TEST_F(Pools, ProgressFollowsTheIndicatorsRule) {
  // Gate, active, current and limit before; what is drawn; current after.
  const std::tuple<int, int, int, int, std::string, int> rows[] = {
      {1, 0, 0, 9, "", 0},      // not active: nothing
      {2, 1, 0, 0, "0123", 3},  // below the gate the limit does not count
      {1, 1, 0, 2, "012", 2},   // at the gate it does
      {2, 1, 2, 0, "23", 3},    // no step back
  };
  FmgrPreAllocRepository prealloc(mDisk);
  prealloc.files = {"a", "b", "c", "d"};
  for (const auto& [gate, active, current, limit, drawn, currentAfter] : rows) {
    Progress progress;
    std::tie(progress.mGate, progress.mActive, progress.mCurrent, progress.mLimit) =
        std::tie(gate, active, current, limit);
    fs::remove(mDisk + "/imf_free");
    EXPECT_EQ(1, FmgrFreeRepository(mDisk).Make(prealloc, &progress));
    EXPECT_EQ(std::pair(4, 1), progress.begun);
    EXPECT_EQ(drawn, progress.refreshed);
    EXPECT_EQ(currentAfter, progress.mCurrent) << drawn;
  }
  Progress emptying;
  std::tie(emptying.mGate, emptying.mActive, emptying.list) = std::tuple(2, 1, &prealloc.files);
  fs::remove(mDisk + "/imf_free");
  EXPECT_EQ(1, FmgrFreeRepository(mDisk).Make(prealloc, &emptying));
  EXPECT_EQ("0123", emptying.refreshed) << "as many as there were before";
}

TEST_F(Pools, FreePoolIsAQueue) {
  MakeTestFile(mDisk + "/imf_free/note.txt");
  FmgrFreeRepository pool = PoolOf({"00000009.imf", "00000008.imf"});
  EXPECT_EQ(1, Push(&pool, 77));
  EXPECT_EQ((List{"00000008.imf", "00000009.imf", "00000010.imf"}), pool.files);
  for (const std::string& name : List(pool.files)) EXPECT_EQ(mDisk + "/imf_free/" + name, pool.Pop());
  // Deliberate: an emptied pool starts at 1, although a new one starts at 0.
  std::string again = mDisk + "/imf_free/00000010.imf";
  EXPECT_EQ(1, pool.Push(again));
  EXPECT_EQ(77, FmgrRepository::GetFileSize(mDisk + "/imf_free/00000001.imf"));
  EXPECT_EQ(0, pool.Push(again)) << "it is gone";
  EXPECT_EQ(List{"00000001.imf"}, pool.files);
}

// What others leave in the pool directory must not cost a pool file: a rename would replace it.
TEST_F(Pools, ForeignNamesInTheFreePool) {
  const std::vector<std::pair<List, std::string>> rows = {
      {{"00000001.imf", "00000002.imf", "copy.imf"}, "00000003.imf"},
      {{"00000001.imf", "2147483647.imf"}, "00000002.imf"},
      {{"100000000.imf", "99999999.imf"}, "100000001.imf"},
      {{"-1.imf"}, ""}};
  for (const auto& [names, pushed] : rows) {
    SCOPED_TRACE(names.back());
    fs::remove_all(mDisk);
    FmgrFreeRepository pool = PoolOf(names);
    EXPECT_EQ(!pushed.empty(), Push(&pool));
    EXPECT_EQ(pushed.empty() ? names.back() : pushed, pool.files.back());
  }
}

// A file that was popped but could not be moved out is still there, and a link or a directory may have come.
TEST_F(Pools, APushReplacesNothing) {
  FmgrFreeRepository pool = PoolOf({"00000001.imf", "00000002.imf"});
  pool.files.clear();
  fs::create_directory(mDisk + "/imf_free/00000003.imf");
  fs::create_symlink("nowhere", mDisk + "/imf_free/00000004.imf");
  EXPECT_EQ(1, Push(&pool));
  EXPECT_EQ(List{"00000005.imf"}, pool.files);
  EXPECT_TRUE(fs::is_symlink(mDisk + "/imf_free/00000004.imf"));
  // Nor what only the list has, which the application may have put there.
  pool.files = {"00000006.imf"};
  EXPECT_EQ(1, Push(&pool));
  pool.files = {"00000009.imf", "00000008.imf"};  // as many as there were
  EXPECT_EQ(1, Push(&pool));
  EXPECT_EQ("00000010.imf", pool.files.back());
}

// Patterns are cut at 63 characters: at the bound a directory is listed, one character more matches nothing.
TEST_F(Pools, ListingPatternIsBounded) {
  for (const size_t length : {47, 48}) {
    const std::string disk = mRoot.Path() + "/" + std::string(length - mRoot.Path().size() - 1, 'x');
    MakeTestFile(disk + "/imf_free/00000000.imf");
    EXPECT_EQ(length == 47 ? 1 : 0, FmgrFreeRepository(disk).GetFileCount());
  }
}

// A listing that breaks off must not pass for an empty or a short one: recordings would be recycled for want of
// free files.
TEST_F(Pools, AListingThatBreaksOffHasFailed) {
  const auto list = [&](int entries) {
    return StderrOf([&] {
      gEntriesBeforeError = entries;
      EXPECT_TRUE(FmgrFreeRepository(mDisk).files.empty());
      gEntriesBeforeError = entries;
      EXPECT_TRUE(FmgrErrorRepository(mDisk).files.empty());
      gEntriesBeforeError = entries;
      FmgrRepositoryGroup group(mDisk, 0, 0);
      gEntriesBeforeError = entries;
      EXPECT_EQ(entries == INT_MAX, group.DataRepositoryListUp(mDisk) == 1);
      gEntriesBeforeError = INT_MAX;
    });
  };
  EXPECT_EQ("", list(INT_MAX)) << "missing directories are no fault";
  MakeTestFile(mDisk + "/imf_free/00000001.imf");
  MakeTestFile(mDisk + "/imf_error/5f5e1000_5f5e1258_cmf.imf");
  for (const int entries : {0, 1, 3}) {  // the last is behind ".", ".." and the file
    const std::string log = list(entries);
    for (const char* line : {"/FmgrFreeRepository:41) glob failure! (2)\n", "free repo list-up failure!",
                             "/FmgrErrorRepository:45) glob failure! (2)\n", "error repo list-up failure!",
                             "/FmgrRepositoryGroup:85) glob failure! (2)\n"})
      EXPECT_TRUE(Has(log, line)) << entries;
  }
  fs::remove_all(mDisk + "/imf_free");
  fs::create_symlink("imf_free", mDisk + "/imf_free");
  EXPECT_NE("", StderrOf([&] { EXPECT_EQ(0, FmgrFreeRepository(mDisk).GetFileCount()); })) << "can't be opened";
}

// --- The quarantine ---

TEST_F(Pools, QuarantineKeepsNames) {
  const std::string name = "5f5e1000_5f5e1258_cmf.imf", path = mDisk + "/imf_error/";
  FmgrErrorRepository quarantine(mDisk);  // a missing directory is no fault
  std::string source;
  for (int size = 1; size <= 3; ++size) {
    source = MakeTestFile(mDisk + "/data_00000001/" + name, size);
    EXPECT_EQ(1, quarantine.Push(source));
  }
  EXPECT_EQ((List{name, name + "2", name + "3"}), quarantine.files);
  EXPECT_EQ(path + name, quarantine.Pop());
  EXPECT_EQ(2, FmgrRepository::GetFileSize(quarantine.Pop()));
  // Deliberate: a move that fails is not noticed.
  EXPECT_EQ(1, quarantine.Push(source));
  EXPECT_EQ((List{name + "3", name + "4"}), quarantine.files);
  // Deliberate: renamed ones drop out of the next listing.
  EXPECT_EQ(List{name}, FmgrErrorRepository(mDisk).files);
}

}  // namespace
