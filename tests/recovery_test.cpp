// What a start after a power cut makes of the recording under way and of the search database.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "ImfFile.h"
#include "SearchDb.h"
#include "TestDirectory.h"
#include "fmgr/FmgrRepositoryGroup.h"

// The device, as far as it can be made to fail: this stands in front of the C library's function.
static int gReadError = 0;
extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  errno = gReadError;
  return gReadError != 0 ? -1 : syscall(SYS_pread64, file, buffer, length, offset);
}

namespace {

constexpr unsigned kList = 0;
constexpr unsigned kCache = 1;
constexpr char kFirst[] = "5f5e1000_5f5e1258_cmf.imf";
constexpr char kOpen[] = "5f5e1600_00000000.imf";
constexpr char kRepaired[] = "5f5e1600_5f5e160c_cm5.imf";
constexpr unsigned kOpenStart = 0x5f5e1600;

struct Closer : ImfSegmentCloseInterface {
  void OnSegmentClosed(ImfFile&) override { ++closed; }
  int closed = 0;
};

int RecordingsIn(const std::string& directory) {
  TimeSearchChart chart{1, INT32_MAX, 0, 0, {}};
  return SearchDb(directory, SEARCH_DB_READ).CollectData(&chart) ? static_cast<int>(chart.recordings.size())
                                                                 : -1;
}

class Recovery : public testing::TestWithParam<unsigned> {
 protected:
  // `start` 0: nothing was ever recorded into the file.
  void Put(const std::string& name, unsigned start) {
    MakeTestFile(mPath + name, 65536);
    if (start != 0) WriteTestRecording(mPath + name, start, 12, 5);
  }
  std::string StartUp(RecoveryObserver* observer) {
    mRepository.mRecoveryObserver = observer;
    mRepository.files.clear();
    mRoot.ForgetAll();
    return StderrOf([this] {
      if (GetParam() == kList) mRepository.RecordFileListUp();
      if (GetParam() == kCache) mRepository.CheckNewestFileFixup();
    });
  }

  TestRoot mRoot;
  std::string mDisk = mRoot.AddDisk("sda1", 1);
  TestDirectory mDirectory{mDisk, 1, GetParam()};
  FmgrDataRepository& mRepository = mDirectory.repository;
  std::string mPath = mDirectory.path;
  std::string mStarted = DbgLine("Last record file recovery started '" + mPath + kOpen + "' \n");
  RecordingObserver mObserver;
};
INSTANTIATE_TEST_SUITE_P(Modes, Recovery, testing::Values(kList, kCache));

TEST_P(Recovery, NamesTheRecordingAfterItsRealEndAndChannels) {
  Closer closer;
  mRepository.mSegmentClose = &closer;
  EXPECT_EQ("", StartUp(&mObserver));
  Put(kFirst, 0);
  EXPECT_EQ("", StartUp(&mObserver));
  Put(kOpen, kOpenStart);
  EXPECT_EQ("", StartUp(nullptr));  // only looks, perhaps beside the process that records
  EXPECT_EQ(Names(), mObserver.heard);
  EXPECT_EQ(mStarted + DbgLine("Last Record File Fixed! '" + mPath + kRepaired + "'\n"), StartUp(&mObserver));
  EXPECT_EQ((Names{"stage 2 1", "fixed " + mPath + kRepaired + " 5", "stage 2 0"}), mObserver.heard);
  EXPECT_EQ(1, closer.closed);
  EXPECT_EQ((Names{kFirst, kRepaired}), NamesIn(mPath));
  EXPECT_EQ(kRepaired, mRepository.GetNewestFile());
}

TEST_P(Recovery, WhatCannotBeRepaired) {
  Put(kFirst, 0);
  const auto expectLeft = [this](unsigned start, int error, std::string says, const char* newest, int free,
                                 int bad) {
    Put(kOpen, start);
    mObserver.heard.clear();
    const std::set<unsigned long> inodes = InodesOf(mDisk);
    gReadError = error;
    const std::string log = StartUp(&mObserver);
    gReadError = 0;
    if (!says.empty()) says = DbgLine(says.replace(says.find('*'), 1, mPath + kOpen));
    EXPECT_EQ(mStarted + says, log.substr(0, mStarted.size() + std::max<size_t>(says.size(), 1)));
    EXPECT_EQ((Names{"stage 2 1", "stage 2 0"}), mObserver.heard);
    EXPECT_EQ((Names{newest, newest}), (Names{mRepository.GetNewestFile(), NamesIn(mPath).back()}));
    EXPECT_EQ(free, mDirectory.free.GetFileCount());
    EXPECT_EQ(bad, mDirectory.error.GetFileCount());
    EXPECT_EQ(Names(), NamesIn(mDisk + "/imf_error"));
    if (error != EIO) ExpectEachInOnePlace(mDisk, inodes);
  };
  const char kRemove[] = "Can't recovery last record file! remove '*' file\n";
  const char kMove[] =
      "File IO error occured! Can't recovery last record file! move '*' file to error repository\n";
  expectLeft(0, 0, kRemove, kFirst, 2, 0);
  expectLeft(0x5f5e0000, 0, kRemove, kFirst, 3, 0);  // just taken from the pool, an older recording in it
  expectLeft(kOpenStart, EIO, kMove, kFirst, 3, 1);  // deliberate: only an entry in a list is left of it
  expectLeft(kOpenStart, EACCES, "", kOpen, 3, 1);   // says nothing about the recording
}

class DatabaseRecovery : public testing::TestWithParam<const char*> {};
// A disk's name must not become a command.
INSTANTIATE_TEST_SUITE_P(Disks, DatabaseRecovery, testing::Values("sda1", "a 'b;$c"));

TEST_P(DatabaseRecovery, RebuildsAnEmptyOrMarkedDatabase) {
  TestRoot root;
  const std::string disk = root.AddDisk(GetParam());
  int index = 0;
  // `content` null: no database. `cause` null: nothing is done.
  const auto expectRebuilt = [&](const Names& files, const char* content, const Names& marks,
                                 const char* cause) {
    TestDirectory directory(disk, ++index, kCache);
    directory.Put(files);
    if (content != nullptr) std::ofstream(directory.path + "search.fdb") << content;
    for (const std::string& mark : marks) MakeTestFile(directory.path + "search.fdb" + mark);
    const Names before = NamesIn(directory.path);
    RecordingObserver observer;
    directory.repository.mRecoveryObserver = &observer;
    const std::string log = StderrOf([&] { directory.repository.CheckDbFixup(); });
    EXPECT_EQ(cause != nullptr ? Names({"stage 2 1", "stage 2 0"}) : Names(), observer.heard);
    if (cause == nullptr) {
      EXPECT_EQ(before, NamesIn(directory.path));
      return;
    }
    const std::string line = "search db recovery started '" + directory.path + "'. cause(" + cause + ")\n";
    EXPECT_EQ(DbgLine(line), log.substr(0, DbgLine(line).size()));
    EXPECT_EQ(static_cast<int>(files.size()), RecordingsIn(directory.path)) << log;
    EXPECT_EQ(files.size() + 1, NamesIn(directory.path).size());
  };
  const Names one = {kFirst}, two = {kFirst, kRepaired};
  expectRebuilt(one, "", {".0.err"}, nullptr);  // a single recording is never checked
  expectRebuilt(two, "", {}, "db size is 0");
  expectRebuilt(two, nullptr, {".7.err"}, "db size is 0");
  expectRebuilt(two, "junk", {".1.err"}, nullptr);  // only the first mark is looked at
  expectRebuilt(two, "junk", {".0.err", ".1.err"}, "error db founded");
}

// The whole start of a disk: first the recording, so that the database then holds it too.
TEST(StartUp, BringsTheDiskBack) {
  TestRoot root;
  const std::string disk = root.AddDisk("sda1", 2), directory = disk + "/data_00000003/";
  MakeTestFile(directory + kFirst, 65536);
  WriteTestRecording(MakeTestFile(directory + kOpen, 65536), kOpenStart, 12, 5);
  RecordingObserver observer;
  FmgrRepositoryGroup group(disk, 1, 0);
  group.mParamA = &observer;
  EXPECT_EQ(1, group.DataRepositoryListUp(disk));
  EXPECT_EQ(5u, observer.heard.size());
  EXPECT_EQ(2, RecordingsIn(directory));
}

}  // namespace
