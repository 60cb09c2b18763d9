// Questions to one data directory, in both ways of keeping its list: in memory and in the file list cache.
#include <algorithm>
#include <random>

#include "ImfSearchCondition.h"
#include "SearchDb.h"
#include "tests/support/FlcSpy.h"
#include "tests/support/TestDirectory.h"

namespace {

// Two completed recordings with a gap between them, and one that is being recorded.
constexpr char kFirst[] = "5f5e1000_5f5e1258_cmf.imf";
constexpr char kSecond[] = "5f5e1300_5f5e1500_cm3.imf";
constexpr char kGrowing[] = "5f5e1600_00000000.imf";
constexpr int kGrowingEnd = 0x5f5e160a;  // so far, by its header
constexpr int64_t kMicro = 1000000;

class Queries : public DirectoryTest {
 protected:
  Queries() : DirectoryTest("sda12345", 0, 1) {}  // no terminator in an answer

  void Put(const Names& names, TestDirectory& directory) {
    directory.Put(names);
    if (names.back() == kGrowing) WriteTestRecording(directory.path + kGrowing, 0x5f5e1600, 10, 1);
  }
  // The name found; empty for none.
  std::string Next(const std::string& name) { return Walk(&FmgrDataRepository::GetNextFilePath, name); }
  std::string Previous(const std::string& name) { return Walk(&FmgrDataRepository::GetPrevFilePath, name); }
  std::string Walk(bool (FmgrDataRepository::*step)(const std::string&, std::string&) const, std::string name) {
    std::string path;
    return (mRepository.*step)(mPath + name, path) ? path.substr(mPath.size()) : path;
  }

  std::string mFound;
  std::list<std::string> mPaths;
};
INSTANTIATE_TEST_SUITE_P(Modes, Queries, testing::Values(kList, kCache));
class ListQueries : public Queries {};
INSTANTIATE_TEST_SUITE_P(List, ListQueries, testing::Values(kList));
class CacheQueries : public Queries {};
INSTANTIATE_TEST_SUITE_P(Cache, CacheQueries, testing::Values(kCache));

// The newest file's own end, else that of the file before it, else none.
TEST_P(Queries, EndOfRecordedData) {
  int index = 2;
  const auto expectEnd = [&](const Names& names, int end) {
    TestDirectory directory(mDisk, index++, GetParam());
    Put(names, directory);
    EXPECT_EQ(end, directory.repository.GetEndTimeSec());
  };
  expectEnd({kFirst, kSecond}, 0x5f5e1500);
  expectEnd({kFirst, kGrowing}, kGrowingEnd);
  expectEnd({kFirst, "5f5e1601_00000000.imf"}, 0x5f5e1258);  // not a word in it yet
  expectEnd({kGrowing}, kGrowingEnd);
  expectEnd({"5f5e1601_00000000.imf"}, 0);
}

TEST_P(Queries, WalksBackAndForth) {
  Put({kFirst, kSecond, kGrowing}, mDirectory);
  for (const auto& [limit, over] : std::map<long, bool>{{0, false}, {0x5f5e1257, false}, {0x5f5e1258, true}})
    EXPECT_EQ(over, mRepository.IsExistTimeOverFile(limit)) << limit;
  EXPECT_EQ((Names{kSecond, kGrowing}), (Names{Next(kFirst), Next(kSecond)}));
  EXPECT_EQ(kGrowing, Next(kGrowing));  // a player stops where nothing changes
  EXPECT_EQ(kSecond, Previous(kGrowing));
  EXPECT_EQ("", Previous(kFirst));
  // By start time forward, in memory by whole name backward.
  EXPECT_EQ(kSecond, Next("5f5e1000_5f5e1001_cm1.imf"));
  EXPECT_EQ(GetParam() == kList ? "" : kFirst, Previous("5f5e1300_5f5e1301_cm1.imf"));
  // Completed meanwhile: whoever holds the old name gets the same recording, and nothing follows it.
  mRepository.RenameRecordFile(mPath + kGrowing, kGrowingEnd, 1, mFound);
  EXPECT_EQ("5f5e1600_5f5e160a_cm1.imf", Next(kGrowing));
  EXPECT_EQ("", Next("5f5e1600_5f5e160a_cm1.imf"));
}

TEST_P(Queries, FileForATime) {
  Put({kFirst, kSecond, kGrowing}, mDirectory);
  const auto expectFile = [&](unsigned useCache, int time, int mode, int end, const std::string& name) {
    if (useCache != GetParam()) return;
    mFound.clear();
    EXPECT_EQ(end, mRepository.GetFilePath(time, mFound, mode)) << std::hex << time << " mode " << mode;
    EXPECT_EQ(name, FmgrRepository::PathToFileName(mFound)) << std::hex << time << " mode " << mode;
  };
  // In memory neither the mode nor a start is looked at: the first file that ends at or after the time.
  expectFile(kList, 0x5f5e0000, 0, 0x5f5e1258, kFirst);
  expectFile(kList, 0x5f5e1258, 1, 0x5f5e1258, kFirst);
  expectFile(kList, 0x5f5e1259, 0, 0x5f5e1500, kSecond);
  expectFile(kList, kGrowingEnd - 1, 1, kGrowingEnd, kGrowing);
  expectFile(kList, kGrowingEnd, 1, 0, "");  // the directory's very end is outside
  expectFile(kCache, 0x5f5e0000, 0, 0, "");
  expectFile(kCache, 0x5f5e1260, 1, 0x5f5e1500, kSecond);
  expectFile(kCache, 0x5f5e1260, 0, 0x5f5e1258, kFirst);
  expectFile(kCache, kGrowingEnd - 1, 1, kGrowingEnd, kGrowing);
  expectFile(kCache, kGrowingEnd, 1, 0, kGrowing);  // refused, and the path stays written
  expectFile(kCache, kGrowingEnd + 100, 0, kGrowingEnd, kGrowing);
  // Completed with less than its header has: the name's end holds, towards later times.
  mRepository.RenameRecordFile(mPath + kGrowing, kGrowingEnd - 5, 1, mFound);
  expectFile(kCache, kGrowingEnd - 3, 1, 0, "");
}

TEST_P(ListQueries, FindsByStartTime) {
  Put({kFirst, "5f5e1000_00000000.imf"}, mDirectory);
  EXPECT_TRUE(mRepository.FindFileNameByStartTime(0x5f5e1000, mFound));
  EXPECT_EQ(mPath + kFirst, mFound);  // the last in name order
  EXPECT_FALSE(mRepository.FindFileNameByStartTime(0x5f5e1001, mFound));
  // A pattern of more than 63 characters is cut: at 64 the "*" goes, and nothing matches.
  for (const size_t length : {24u, 25u}) {
    const std::string disk = mRoot.Path() + "/" + std::string(length, 'd');
    MakeTestFile(disk + "/data_00000001/" + kFirst);
    EXPECT_EQ(length == 24,
              FmgrDataRepository(disk, 1, nullptr, nullptr, kList).FindFileNameByStartTime(0x5f5e1000, mFound));
  }
}

TEST_P(ListQueries, CollectsByStartAmongOtherDirectories) {
  const std::string early = "5f5e0f00_5f5e1000_cm1.imf", silent = "5f5e1000_5f5e1300_cm0.imf";
  const std::string other = "/x/5f5e1000_1_cm1.imf", path = mPath;
  Put({"5f5e0f00_5f5e0fff_cm1.imf", early, kFirst, silent, kSecond}, mDirectory);
  // Parts of seconds do not count: one recording ends right at the start, one starts right at the end.
  const int64_t from = 0x5f5e0fff * kMicro + 999999, to = 0x5f5e1300 * kMicro + 999999;
  mPaths = {other};
  EXPECT_EQ(2, mRepository.CollectFileList(mPaths, {from, to, 0, 0}));
  EXPECT_EQ((std::list<std::string>{path + early, path + kFirst, other}), mPaths);
  // Equal starts come out in reverse; a file without channels stays away only from a search for none.
  mPaths = {other};
  EXPECT_EQ(3, mRepository.CollectFileList(mPaths, {from, to, 0, 0x10}));
  EXPECT_EQ((std::list<std::string>{path + early, path + silent, path + kFirst, other}), mPaths);
}

// Whatever order the caller's list has, and however many starts are equal.
TEST_P(ListQueries, CollectsInFrontOfTheFirstThatStartsNoEarlier) {
  std::mt19937 random(1);
  const auto fill = [&](std::list<std::string>& list, const std::string& directory) {
    list.clear();
    for (unsigned i = random() % 12; i > 0; --i)
      list.push_back(directory + Text("%x_100_cm1.imf", static_cast<unsigned>(random() % 16)));
  };
  for (int round = 0; round < 300; ++round) {
    fill(mPaths, "/x/");
    fill(mRepository.files, "");
    std::list<std::string> expected = mPaths;
    for (const std::string& name : mRepository.files) {
      const auto startOf = [](const std::string& path) {
        return std::stoi(path.substr(path.rfind('/') + 1), nullptr, 16);
      };
      const auto isLater = [&](const std::string& path) { return startOf(path) >= startOf(name); };
      expected.insert(std::find_if(expected.begin(), expected.end(), isLater), mPath + name);
    }
    mRepository.CollectFileList(mPaths, {0, 1000 * kMicro, 0, 1});
    ASSERT_EQ(expected, mPaths) << round;
  }
}

TEST_P(CacheQueries, CollectsInPages) {
  int index = 1;
  const auto expectPages = [&](uint32_t files, uint32_t step, const std::vector<uint32_t>& pages) {
    const TestDirectory directory(mDisk, ++index, kCache);
    for (uint32_t i = 1; i <= files; ++i)
      FlcAddFile("sda12345", index, i * 10, step == 0 ? UINT32_MAX : i * step + 9, 4);
    flc_spy::Clear();
    mPaths.clear();
    EXPECT_EQ(files, directory.repository.CollectFileList(mPaths, {1500000, 0xffff * kMicro, 0, 6}) + 0u);
    EXPECT_EQ(files, std::set<std::string>(mPaths.begin(), mPaths.end()).size());
    std::vector<uint32_t> asked;
    for (const flc_spy::Request& request : flc_spy::Requests())
      if (request.number == FLC_FILES_IN_INTERVAL) asked.push_back(request.file.startTime);
    EXPECT_EQ(pages, asked);
  };
  expectPages(99, 10, {1});
  expectPages(100, 10, {1, 1010});  // a full page: once more from one second after its last end
  expectPages(250, 10, {1, 1010, 2010});
  expectPages(100, 0, {1});  // all up to the end of time: it does not start over
}

// A disk without a name would be any disk to the driver, so it is not asked.
TEST_P(CacheQueries, DiskWithoutAName) {
  const FmgrDataRepository repository("x/", 1, nullptr, nullptr, kCache);
  flc_spy::Clear();
  EXPECT_EQ(0, repository.GetStartTimeSec() + repository.GetFilePath(9, mFound, 1));
  EXPECT_EQ(0, repository.CollectFileList(mPaths, {0, kMicro}));
  EXPECT_TRUE(flc_spy::Requests().empty());
}

}  // namespace
