// Other hands on the disk: files moved into a data directory, data directories made and deleted.
#include <sys/inotify.h>

#include "fmgr/FmgrRepositoryGroup.h"
#include "tests/support/FlcSpy.h"
#include "tests/support/TestDirectory.h"

namespace {

template <typename Watcher>
std::string Poll(Watcher& watcher) {
  flc_spy::Clear();
  return StderrOf([&watcher] { watcher.WatchDirectory(); });
}

// The life of a watch, and that no descriptor stays behind.
template <typename Watcher>
void ExpectStartsAndStops(std::unique_ptr<Watcher> watcher, std::string path) {
  const size_t before = NamesIn("/proc/self/fd").size();
  std::string missing = path + "/missing";
  watcher->InitWatchDirectory(missing);
  EXPECT_NE("", Poll(*watcher)) << "not watching";
  watcher->InitWatchDirectory(path);
  watcher->InitWatchDirectory(path);
  EXPECT_EQ(before + 1, NamesIn("/proc/self/fd").size());  // one at a time
  watcher.reset();
  EXPECT_EQ(before, NamesIn("/proc/self/fd").size());
}

TEST(Watch, StartsAndStops) {
  TestRoot root;
  const std::string disk = root.AddDisk("sda1");
  TestDirectory directory(disk, 4, 1);
  ExpectStartsAndStops(std::make_unique<FmgrDataRepository>(disk, 4, &directory.free, &directory.error, 1u),
                       directory.path);
  for (const int mode : {0, 2})  // only 1 watches by itself
    ExpectStartsAndStops(std::make_unique<FmgrRepositoryGroup>(disk, 1, mode), disk);
}

class DirectoryWatch : public DirectoryTest {
 protected:
  DirectoryWatch() : DirectoryTest("sda1", 0, 4) {
    std::string path = mPath;
    mRepository.InitWatchDirectory(path);
  }
  void MoveIn(const std::string& name) { fs::rename(MakeTestFile(mDisk + "/outside/" + name), mPath + name); }
  void ExpectPoll(const Names& sent) {
    Poll(mRepository);
    EXPECT_EQ(sent, flc_spy::Sent());
  }
};
// The driver hears of new files whichever way the directory keeps its own list.
INSTANTIATE_TEST_SUITE_P(Modes, DirectoryWatch, testing::Values(kList, kCache));

TEST_P(DirectoryWatch, TellsTheDriverOfFilesMovedIn) {
  MoveIn("5f5e1000_5f5e1258_cmf.imf");
  ExpectPoll({"307 sda1 4 5f5e1000 0 0 0", "305 sda1 4 5f5e1000 5f5e1258 f 0"});
  MoveIn("5f5e1300_00000000.imf");
  ExpectPoll({"305 sda1 4 5f5e1300 0 0 0"});
  MoveIn("search.fdb");  // not looked at: the driver refuses a start of 0
  ExpectPoll({"305 sda1 4 0 0 0 0"});
  fs::create_directories(mDisk + "/outside/5f5e1400_00000000.imf");
  fs::rename(mDisk + "/outside/5f5e1400_00000000.imf", mPath + "5f5e1400_00000000.imf");
  fs::remove(MakeTestFile(mPath + "5f5e1500_00000000.imf"));  // made in place
  ExpectPoll({});
}

// One poll reads 32768 bytes: what does not fit waits, nothing is lost or seen twice.
TEST_P(DirectoryWatch, ManyEventsTakeSeveralPolls) {
  for (int i = 0; i < 700; ++i) MoveIn("5f5e1" + std::to_string(100 + i) + "_00000000.imf");
  const size_t perPoll = 32768 / (sizeof(inotify_event) + 32);
  Poll(mRepository);
  EXPECT_EQ(perPoll, flc_spy::Requests().size());
  Poll(mRepository);
  EXPECT_EQ(700 - perPoll, flc_spy::Requests().size());
}

TEST(DiskWatch, FollowsDataDirectories) {
  TestRoot root;
  const std::string disk = root.AddDisk("sda1");
  TestDirectory(disk, 5, 1).Put({"5f5e1000_5f5e1258_cmf.imf"});
  FmgrRepositoryGroup group(disk, 1, 1);
  group.mTempRoot = root.Path();
  group.DataRepositoryListUp(disk);
  const auto expectPoll = [&group](const std::vector<int>& indexes) {
    Poll(group);
    std::vector<int> listed;
    for (const FmgrDataRepository* each : group.mDataRepositories) listed.push_back(each->Index());
    EXPECT_EQ(indexes, listed);
    EXPECT_TRUE(flc_spy::Requests().empty());  // a directory of somebody else's is not registered
  };
  for (const char* name : {"data_7", "data_3", "other"}) fs::create_directory(disk + "/" + name);
  MakeTestFile(disk + "/data_8");
  expectPoll({5, 7});  // no number below the last
  EXPECT_EQ(root.Path(), group.mDataRepositories.back()->mLinkRoot);
  for (const char* name : {"data_7", "data_3", "other", "data_8"}) fs::remove(disk + "/" + name);
  expectPoll({5});
  group.MakeDataRepository(6, 1);  // its own, which is in the list already
  group.WatchDirectory();
  EXPECT_EQ(2, group.GetDataRepositoryCount());
}

}  // namespace
