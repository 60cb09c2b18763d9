// What a start after a power cut makes of the recording under way and of the search database.
#include <sys/uio.h>

#include <cerrno>

#include "ImfFile.h"
#include "SearchDb.h"
#include "tests/support/TestDirectory.h"

// The device, as far as it can be made to fail: this stands in front of the C library's function.
static int gReadError = 0;
extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  iovec part = {buffer, length};
  errno = gReadError;
  return gReadError != 0 ? -1 : preadv(file, &part, 1, offset);
}

namespace {

constexpr char kFirst[] = "5f5e1000_5f5e1258_cmf.imf";
constexpr char kOpen[] = "5f5e1600_00000000.imf";
constexpr char kRepaired[] = "5f5e1600_5f5e160c_cm5.imf";
constexpr unsigned kOpenStart = 0x5f5e1600;

struct Closer : ImfSegmentCloseInterface {
  void OnSegmentClosed(ImfFile&) override { ++closed; }
  int closed = 0;
};

class Recovery : public DirectoryTest {
 protected:
  Recovery() : DirectoryTest("sda1", 1, 1) {}

  // `start` 0: nothing was ever recorded into the file.
  void Put(const std::string& name, unsigned start) {
    MakeTestFile(mPath + name, 65536);
    if (start != 0) WriteTestRecording(mPath + name, start, 12, 5);
  }
  void StartUp(RecoveryObserver* observer) {
    mRepository.mRecoveryObserver = observer;
    mRepository.files.clear();
    mRoot.ForgetAll();
    if (GetParam() == kList) mRepository.RecordFileListUp();
    if (GetParam() == kCache) mRepository.CheckNewestFileFixup();
  }
};
INSTANTIATE_TEST_SUITE_P(Modes, Recovery, testing::Values(kList, kCache));

TEST_P(Recovery, NamesTheRecordingAfterItsRealEndAndChannels) {
  Closer closer;
  mRepository.mSegmentClose = &closer;
  Put(kFirst, 0);
  StartUp(&mObserver);
  Put(kOpen, kOpenStart);
  StartUp(nullptr);  // only looks, perhaps beside the process that records
  EXPECT_EQ(Names(), mObserver.heard);
  StartUp(&mObserver);
  EXPECT_EQ((Names{"stage 2 1", "fixed " + mPath + kRepaired + " 5", "stage 2 0"}), mObserver.heard);
  EXPECT_EQ(1, closer.closed);
  EXPECT_EQ((Names{kFirst, kRepaired}), NamesIn(mPath));
  EXPECT_EQ(kRepaired, mRepository.GetNewestFile());
}

TEST_P(Recovery, WhatCannotBeRepaired) {
  Put(kFirst, 0);
  const auto expectLeft = [this](unsigned start, int error, const char* newest, int free, int bad) {
    Put(kOpen, start);
    mObserver.heard.clear();
    const std::set<unsigned long> inodes = InodesOf(mDisk);
    gReadError = error;
    StartUp(&mObserver);
    gReadError = 0;
    EXPECT_EQ((Names{"stage 2 1", "stage 2 0"}), mObserver.heard);
    EXPECT_EQ((Names{newest, newest}), (Names{mRepository.GetNewestFile(), NamesIn(mPath).back()}));
    EXPECT_EQ(free, mDirectory.free.GetFileCount());
    EXPECT_EQ(bad, mDirectory.error.GetFileCount());
    EXPECT_EQ(Names(), NamesIn(mDisk + "/imf_error"));
    if (error != EIO) ExpectEachInOnePlace(mDisk, inodes);
  };
  expectLeft(0, 0, kFirst, 2, 0);
  expectLeft(0x5f5e0000, 0, kFirst, 3, 0);      // just taken from the pool, an older recording in it
  expectLeft(kOpenStart, EIO, kFirst, 3, 1);    // deliberate: only an entry in a list is left of it
  expectLeft(kOpenStart, EACCES, kOpen, 3, 1);  // says nothing about the recording
}

TEST(DatabaseRecovery, RebuildsAnEmptyOrMarkedDatabase) {
  TestRoot root;
  const std::string disk = root.AddDisk("a 'b;$c");  // a disk's name must not become a command
  int index = 0;
  // `content` null: no database.
  const auto expectRebuilt = [&](const Names& files, const char* content, const Names& marks, bool isRebuilt) {
    TestDirectory directory(disk, ++index, kCache);
    directory.Put(files);
    if (content != nullptr) WriteText(directory.path + "search.fdb", content);
    for (const std::string& mark : marks) MakeTestFile(directory.path + "search.fdb" + mark);
    const Names before = NamesIn(directory.path);
    RecordingObserver observer;
    directory.repository.mRecoveryObserver = &observer;
    directory.repository.CheckDbFixup();
    EXPECT_EQ(isRebuilt ? Names({"stage 2 1", "stage 2 0"}) : Names(), observer.heard);
    if (isRebuilt) {
      TimeSearchChart chart{1, INT32_MAX, 0, 0, {}};
      EXPECT_TRUE(SearchDb(directory.path, SEARCH_DB_READ).CollectData(&chart));
      EXPECT_EQ(files.size(), chart.recordings.size());
      EXPECT_EQ(files.size() + 1, NamesIn(directory.path).size());
    } else {
      EXPECT_EQ(before, NamesIn(directory.path));
    }
  };
  const Names one = {kFirst}, two = {kFirst, kRepaired};
  expectRebuilt(one, "", {".0.err"}, false);  // a single recording is never checked
  expectRebuilt(two, "", {}, true);
  expectRebuilt(two, nullptr, {".7.err"}, true);
  expectRebuilt(two, "junk", {".1.err"}, false);  // only the first mark is looked at
  expectRebuilt(two, "junk", {".0.err", ".1.err"}, true);
}

}  // namespace
