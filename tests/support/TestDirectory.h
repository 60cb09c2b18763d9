// One data directory of a test disk, with the disk's pools.
#pragma once

#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrErrorRepository.h"
#include "fmgr/FmgrFreeRepository.h"
#include "tests/support/TestDisk.h"

// Where a data directory's list is kept: in memory, or in the file list cache.
constexpr unsigned kList = 0;
constexpr unsigned kCache = 1;

struct TestDirectory {
  // The directory is made; `useCache` as for FmgrDataRepository.
  TestDirectory(const std::string& disk, int index, unsigned useCache)
      : free(disk), error(disk), repository(disk, index, &free, &error, useCache), path(repository.Path()) {
    repository.mLinkRoot = disk.substr(0, disk.find("/disk/"));
    EXPECT_EQ(1, repository.Make());
  }
  // Adds files that nothing was recorded into, and lists the directory.
  void Put(const Names& names) {
    for (const std::string& name : names) MakeTestFile(path + name, 65536);
    EXPECT_EQ(1, repository.RecordFileListUp());
  }

  FmgrFreeRepository free;
  FmgrErrorRepository error;
  FmgrDataRepository repository;
  const std::string path;
};

// A disk with one data directory, whose list is kept where the parameter says.
class DirectoryTest : public testing::TestWithParam<unsigned> {
 protected:
  DirectoryTest(const char* disk, int freeFiles, int index)
      : mDisk(mRoot.AddDisk(disk, freeFiles)), mDirectory(mDisk, index, GetParam()) {}

  TestRoot mRoot;
  const std::string mDisk;
  const std::set<unsigned long> mInodes = InodesOf(mDisk);
  TestDirectory mDirectory;
  FmgrDataRepository& mRepository = mDirectory.repository;
  const std::string mPath = mDirectory.path;
  RecordingObserver mObserver;
};
