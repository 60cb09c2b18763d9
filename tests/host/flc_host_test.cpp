#include "platform/host/flc/FlcHost.h"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "Flc.h"
#include "platform/host/flc/FlcDirectory.h"
#include "tests/support/TestDisk.h"

namespace {

constexpr uint32_t kAll = 0xffffffff;

class FlcHost : public testing::Test {
 protected:
  FlcHost() {
    for (const char* disk : {"a", "b", "usbdisk1"}) FlcDetachDisk(disk);
    FlcClear();
  }

  // A path below the test's directory.
  std::string Path(const std::string& path) const { return mRoot.Path() + "/" + path; }
  void MakeFiles(const std::string& directory, const Names& names) const {
    for (const std::string& name : names) MakeTestFile(Path(directory + "/" + name), 0);
  }
  void Attach() const { ASSERT_EQ(FlcAttachDisk("a", Path("a").c_str()), 0); }
  // The start times of a directory's records; empty, too, when it answers with a failure.
  static std::vector<uint32_t> Starts(const char* disk, int index) {
    std::vector<uint32_t> starts;
    for (int i = 1; i <= FlcGetFileCount(disk, index); ++i) {
      flc_file_info_param_t param = FlcFileParam("", index, 0, 0, 0, i);
      EXPECT_EQ(FlcGetFileAtPosition(disk, &param), 0);
      starts.push_back(param.startTime);
    }
    return starts;
  }

  TestRoot mRoot;
};

using Times = std::vector<uint32_t>;

TEST_F(FlcHost, RefusesWhatIsNoRequest) {
  flc_file_info_param_t param = FlcFileParam("a", 1, 10, 20, 1, 1);
  EXPECT_EQ(FlcIoctl(0x4004f306, &param), -1);
  for (const unsigned long request : {FLC_ADD_FILE, FLC_REGISTER_REPOSITORY, FLC_FILE_BY_TIME, FLC_FILE_COUNT})
    EXPECT_EQ(FlcIoctl(request, nullptr), -1);
  EXPECT_EQ(FlcAddFile("a", 1, 0, 20, 1), -1);
}

// The rules of the cache once more, as plainly as they can be put: every question looks at every record.
class Model {
 public:
  int Ask(unsigned long request, flc_file_info_param_t* page) {
    const std::string name(page->diskName, strnlen(page->diskName, sizeof page->diskName));
    if (request == FLC_CLEAR) return mDisks.clear(), 0;
    if (request >= FLC_FILE_BY_TIME) return LookUp(request, name, page);
    if (name.empty() || page->repository < 0) return -1;
    auto disk = std::find_if(mDisks.begin(), mDisks.end(), [&](const Disk& each) { return each.name == name; });
    if (disk == mDisks.end()) {
      if (request == FLC_UNREGISTER_REPOSITORY || request == FLC_REMOVE_FILE) return -1;
      disk = mDisks.insert(disk, {name, {}});
    }
    if (request == FLC_UNREGISTER_REPOSITORY) return disk->files.erase(page->repository) == 1 ? 0 : -1;
    if (request == FLC_REGISTER_REPOSITORY) return disk->files[page->repository].clear(), 0;
    if (request == FLC_ADD_FILE) {
      disk->files[page->repository][page->startTime] = {page->startTime, page->endTime, page->channelMask};
      return 0;
    }
    const auto files = disk->files.find(page->repository);
    return files != disk->files.end() && files->second.erase(page->startTime) == 1 ? 0 : -1;
  }

 private:
  struct Disk {
    std::string name;
    std::map<int, std::map<uint32_t, FlcFile>> files;
  };
  struct Record {
    flc_file_info_param_t file;
    uint32_t effectiveEnd;
  };
  // In the order of a number that each record has; of equal ones in the order in which they were.
  template <typename Key>
  static void Sort(std::vector<Record>& records, Key key) {
    std::stable_sort(records.begin(), records.end(),
                     [key](const Record& a, const Record& b) { return key(a) < key(b); });
  }

  int LookUp(unsigned long request, const std::string& name, flc_file_info_param_t* page) const {
    const flc_file_info_param_t query = *page;
    const uint32_t time = query.startTime, mask = query.channelMask;
    std::vector<Record> all;  // by start, attachment, index
    bool known = false;
    for (const Disk& disk : mDisks) {
      if (!name.empty() && name != disk.name) continue;
      known = known || query.repository == FLC_ANY_REPOSITORY;
      for (const auto& [index, files] : disk.files) {
        if (query.repository != FLC_ANY_REPOSITORY && query.repository != index) continue;
        known = true;
        for (auto it = files.begin(); it != files.end(); ++it) {
          const FlcFile& file = it->second;
          const uint32_t open = std::next(it) != files.end() ? std::next(it)->first : kAll;
          all.push_back({FlcFileParam(disk.name.c_str(), index, it->first, file.endTime, file.channelMask),
                         file.endTime != 0 ? file.endTime : open});
        }
      }
    }
    if (!known) return -1;
    if (request == FLC_FILE_COUNT) return static_cast<int>(all.size());
    Sort(all, [](const Record& record) { return record.file.startTime; });

    const bool interval = request == FLC_FILES_IN_INTERVAL;
    const bool covering = request == FLC_FILE_BY_TIME && query.query > 0;
    const bool latest = request == FLC_FILE_BY_TIME && query.query <= 0;
    std::vector<Record> matching;
    for (const Record& record : all) {
      const uint32_t start = record.file.startTime, end = record.file.endTime;
      const bool passes = mask == 0 || mask == kAll || end == 0 || (mask & record.file.channelMask) != 0;
      const bool matches = request == FLC_OLDEST_FILE || request == FLC_NEWEST_FILE ||
                           (request == FLC_FILE_AT_POSITION && query.query == &record - all.data() + 1) ||
                           (request == FLC_PREVIOUS_FILE && passes && start < time) ||
                           (request == FLC_NEXT_FILE && passes && start > time) ||
                           (latest && passes && start <= time) ||
                           (covering && passes && (start == time || record.effectiveEnd >= time)) ||
                           (interval && passes && end != 0 && start < query.endTime && end >= time);
      if (matches) matching.push_back(record);
    }
    if (interval) Sort(matching, [](const Record& record) { return record.file.endTime; });
    if (covering) Sort(matching, [time](const Record& record) { return record.file.startTime != time; });
    if (latest || request == FLC_NEWEST_FILE || request == FLC_PREVIOUS_FILE)
      Sort(matching, [](const Record& record) { return ~record.file.startTime; });
    const size_t count = std::min<size_t>(matching.size(), interval ? FLC_PAGE_SIZE : 1);
    for (size_t i = 0; i < count; ++i) page[i] = matching[i].file;
    return interval ? static_cast<int>(count) : count == 1 ? 0 : -1;
  }

  std::vector<Disk> mDisks;  // in the order in which they became known
};

class FlcRandom : public FlcHost, public testing::WithParamInterface<int> {};

TEST_P(FlcRandom, AnswersByTheRules) {
  const char* given = std::getenv("FLC_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atoi(given)) : std::random_device()();
  SCOPED_TRACE("replay with FLC_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  const bool orderly = GetParam() == 1;  // recordings end in the order in which they start, as they should
  const bool small = GetParam() == 2;    // few records, often cleared, so that order comes and goes
  const bool rolling = GetParam() == 3;  // one directory that grows at its end and is recycled from its front
  const uint32_t times = small ? 20 : 400;
  static const unsigned long kOften[] = {
      FLC_FILE_BY_TIME, FLC_PREVIOUS_FILE, FLC_NEXT_FILE,    FLC_FILE_AT_POSITION,  FLC_OLDEST_FILE,
      FLC_NEWEST_FILE,  FLC_FILE_COUNT,    FLC_FILE_BY_TIME, FLC_FILES_IN_INTERVAL, FLC_ADD_FILE,
      FLC_REMOVE_FILE,  FLC_ADD_FILE,      FLC_ADD_FILE};
  static const unsigned long kSeldom[] = {FLC_REGISTER_REPOSITORY, FLC_UNREGISTER_REPOSITORY, FLC_CLEAR};
  static const char* const kDisks[] = {"usbdisk1", "a", ""};
  Model model;
  for (int step = 0; step < 15000; ++step) {
    unsigned long request =
        below(small ? 100 : 8000) == 0 ? kSeldom[below(3)] : kOften[below(std::size(kOften))];
    uint32_t start = 1 + below(times);
    uint32_t end = orderly ? start + 3 : 1 + below(times + 10);
    if (below(orderly ? 40 : 6) == 0) end = 0;
    uint32_t mask = below(2) == 0 ? kAll : below(8);
    if (request == FLC_ADD_FILE) mask &= 7;
    if (request == FLC_FILES_IN_INTERVAL) end = start + below(times);
    if (request != FLC_ADD_FILE && below(20) == 0) start = below(2) == 0 ? 0 : kAll;
    const int word = static_cast<int>(below(2) == 0 ? below(4) : below(400)) - 1;
    flc_file_info_param_t page[FLC_PAGE_SIZE] = {
        FlcFileParam(kDisks[below(3)], static_cast<int>(below(4)) - 1, start, end, mask, word)};
    if (rolling && (request == FLC_ADD_FILE || request == FLC_REMOVE_FILE)) {
      page[0] = FlcFileParam("a", 1);
      const bool recycle = step / 3000 % 2 == 1 && FlcGetOldestFile("a", &page[0]) == 0;
      request = recycle ? FLC_REMOVE_FILE : FLC_ADD_FILE;
      if (!recycle) page[0] = FlcFileParam("a", 1, static_cast<uint32_t>(step) / 8 + 1, end, 1);
    }
    flc_file_info_param_t expected[FLC_PAGE_SIZE];
    std::memcpy(expected, page, sizeof page);
    const int result = FlcIoctl(request, page);
    ASSERT_TRUE(result == model.Ask(request, expected) && std::memcmp(page, expected, sizeof page) == 0)
        << "step " << step << " request " << std::hex << request << ": " << result << ", start "
        << page[0].startTime << ", not " << expected[0].startTime;
  }
}

INSTANTIATE_TEST_SUITE_P(Runs, FlcRandom, testing::Values(0, 1, 2, 3));

TEST_F(FlcHost, LoadsOnlyRecordFilesOfDataDirectories) {
  fs::create_directories(Path("a/data_00000003/50_60_cm1.imf"));  // a directory named like a record file
  // Of several with one start the longest counts; the one after them ends before it does.
  MakeFiles("a/data_00000003",
            {"40_00000000.imf", "10_00000000.imf", "10_60_cm1.imf", "10_18_cm7.imf", "20_30_cm1.imf"});
  fs::create_symlink("10_60_cm1.imf", Path("a/data_00000003/70_80_cm1.imf"));
  MakeFiles("a/data_7", {"1_2_cm1.imf"});
  fs::create_directory_symlink("data_7", Path("a/data_00000008"));
  Attach();
  EXPECT_EQ(Starts("a", 3), (Times{0x10, 0x20, 0x40}));
  flc_file_info_param_t covering = FlcFileParam("", 3, 0x35, 0, kAll, 1);
  EXPECT_EQ(FlcGetFileByTime("a", &covering), 0);
  EXPECT_EQ(covering.endTime, 0x60u);
  EXPECT_EQ(Starts("a", 7), Times{1});
  EXPECT_EQ(FlcGetFileCount("a", 8), -1);
}

// A directory that can't be read must never look empty: its recordings would be deleted with it.
TEST_F(FlcHost, UnreadableIsNotEmpty) {
  MakeFiles("a/data_00000001", {"10_20_cm1.imf"});
  Attach();
  ASSERT_EQ(FlcAddFile("b", 1, 0x30, 0x40, 1), 0);
  ASSERT_EQ(FlcGetFileCount("", FLC_ANY_REPOSITORY), 2);
  ASSERT_EQ(FlcForget("a", 1), 0);
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);  // nothing can be opened any more
  flc_file_info_param_t param = FlcFileParam("", FLC_ANY_REPOSITORY, 1, 0, kAll, 1);
  const int answers[] = {FlcGetFileCount("a", 1), FlcGetFileCount("", FLC_ANY_REPOSITORY),
                         FlcGetOldestFile("", &param), FlcAddFile("a", 1, 0x50, 0x60, 1),
                         FlcRemoveFile("a", 1, 0x10)};
  const int next = FlcGetNextFile("", &param);  // playback goes on with what can be read
  setrlimit(RLIMIT_NOFILE, &before);
  for (const int answer : answers) EXPECT_EQ(answer, -1);
  EXPECT_EQ(next, 0);
  EXPECT_EQ(param.startTime, 0x30u);
  EXPECT_EQ(Starts("a", 1), Times{0x10});

  // A disk that has gone is no disk without data directories.
  Attach();
  fs::rename(Path("a"), Path("gone"));
  EXPECT_EQ(FlcGetFileCount("a", FLC_ANY_REPOSITORY), -1);
  EXPECT_EQ(FlcAddFile("a", 1, 0x50, 0x60, 1), -1);
}

TEST_F(FlcHost, ReadsADirectoryOnceUntilToldOtherwise) {
  MakeFiles("a/data_00000001", {"10_20_cm1.imf"});
  Attach();
  // An addition reads the directory first: otherwise it would hide the files that stand there already.
  EXPECT_EQ(FlcAddFile("a", 1, 0x30, 0, 0), 0);
  MakeFiles("a/data_00000001", {"20_30_cm1.imf"});
  EXPECT_EQ(Starts("a", 1), (Times{0x10, 0x30}));
  EXPECT_EQ(FlcForget("a", 1), 0);
  EXPECT_EQ(Starts("a", 1), (Times{0x10, 0x20}));
  EXPECT_EQ(FlcGetFileCount("", FLC_ANY_REPOSITORY), 2);
  MakeFiles("a/data_00000011", {"1_2_cm1.imf"});
  EXPECT_EQ(FlcGetFileCount("", FLC_ANY_REPOSITORY), 2);
  EXPECT_EQ(FlcForget("a", FLC_ANY_REPOSITORY), 0);  // the list of data directories, too
  EXPECT_EQ(FlcGetFileCount("", FLC_ANY_REPOSITORY), 3);

  EXPECT_EQ(FlcUnregisterRepository("a", 1), 0);
  EXPECT_EQ(FlcForget("a", FLC_ANY_REPOSITORY), 0);
  EXPECT_EQ(FlcGetFileCount("a", 1), -1);
  EXPECT_EQ(FlcAddFile("a", 1, 0x50, 0, 0), -1);
  EXPECT_EQ(FlcRegisterRepository("a", 1), 0);
  EXPECT_EQ(FlcGetFileCount("a", 1), 2);

  // What was only added gives way to the directory once there is one, with all its files.
  EXPECT_EQ(FlcAddFile("a", 2, 0x60, 0, 0), 0);
  MakeFiles("a/data_00000002", {"70_80_cm1.imf"});
  EXPECT_EQ(Starts("a", 2), Times{0x70});
}

// The last file of a block has no end, so it reaches up to the first one of the next, whichever that is.
TEST(FlcDirectory, AFileWithoutEndReachesOverTheBlocksBorder) {
  std::vector<FlcFile> files;
  for (uint32_t i = 1; i <= 128; ++i) files.push_back({i * 10, i == 128 ? 0 : i * 10 + 9, 1});
  files.push_back({2000, 2009, 1});
  FlcDirectory grown;
  for (const FlcFile& file : files) grown.Add(file);
  FlcDirectory read(files);
  for (FlcDirectory* each : {&grown, &read}) {
    EXPECT_EQ(each->Covering(1500, 1)->startTime, 1280u);
    each->Add({3000, 3009, 1});
    each->Remove(2000);
    EXPECT_EQ(each->Covering(2500, 1)->startTime, 1280u);
  }
}

TEST_F(FlcHost, HoldsAFileInLessThan16Bytes) {
  const size_t before = mallinfo2().uordblks;
  for (uint32_t i = 0; i < 100000; ++i)
    ASSERT_EQ(FlcAddFile("a", static_cast<int>(i / 500), 1 + i, 2 + i, 1), 0);
  const size_t perFile = (mallinfo2().uordblks - before) / 100000;
  if (perFile == 0) GTEST_SKIP() << "this allocator does not count: nothing was tested";
  EXPECT_GE(perFile, sizeof(FlcFile));
  EXPECT_LE(perFile, 16u);
}

// For the thread sanitizer, and for lost or doubled records without it.
TEST_F(FlcHost, ServesManyThreads) {
  MakeFiles("a/data_00000009", {"10_20_cm1.imf"});
  Attach();
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([index, &wrong] {
      for (uint32_t i = 1; i <= 1000; ++i) {
        wrong += FlcAddFile("b", index, i, i + 1, 1) != 0 ? 1 : 0;
        flc_file_info_param_t newest = FlcFileParam("", index);
        wrong += FlcGetNewestFile("b", &newest) != 0 || newest.startTime != i ? 1 : 0;
        flc_file_info_param_t next = FlcFileParam("", FLC_ANY_REPOSITORY, i - 1, 0, kAll, 1);
        wrong += FlcGetNextFile("", &next) != 0 || next.startTime < i ? 1 : 0;
        if (i % 2 == 0) wrong += FlcRemoveFile("b", index, i) != 0 ? 1 : 0;
        if (i % 100 == 0) wrong += FlcForget("a", FLC_ANY_REPOSITORY) != 0 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  for (int index = 0; index < 4; ++index) EXPECT_EQ(FlcGetFileCount("b", index), 500);
  EXPECT_EQ(FlcGetFileCount("a", 9), 1);
}

}  // namespace
