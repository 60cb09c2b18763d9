// One data directory of a test disk, with the disk's pools.
#pragma once

#include <string>
#include <vector>

#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrErrorRepository.h"
#include "fmgr/FmgrFreeRepository.h"
#include "tests/support/TestDisk.h"

using Names = std::vector<std::string>;

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
