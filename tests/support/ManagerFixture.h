// A file manager over test disks that already hold recordings.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "tests/support/TestDisk.h"

constexpr int kT = 1600000000;  // 0x5f5e1000; test times count from here

inline std::string DataDir(const std::string& disk, int index) { return disk + Text("/data_%08d/", index); }

// Of a recording "INDEX:START-END", or "INDEX:START" when it is in progress; in seconds after kT.
inline std::string PathOf(const std::string& disk, const std::string& recording) {
  int index = 0;
  unsigned start = 0;
  unsigned end = 0;
  const int fields = std::sscanf(recording.c_str(), "%d:%u-%u", &index, &start, &end);
  EXPECT_LE(2, fields) << recording;
  return DataDir(disk, index) +
         (fields == 2 ? Text("%x_00000000.imf", kT + start) : Text("%x_%x_cm1.imf", kT + start, kT + end));
}

class ManagerTest : public testing::Test {
 protected:
  ManagerTest() { Begin({}); }
  ~ManagerTest() override { FmgrFileManager::ReleaseInstance(); }

  // Starts over with these disks, added in this order. Returns their directories.
  Names Begin(const Names& disks, int option = 0) {
    FmgrFileManager::ReleaseInstance();
    mRoot = std::make_unique<TestRoot>();
    Restart(option);
    Names directories;
    for (const std::string& disk : disks) directories.push_back(Add(disk));
    return directories;
  }

  void Restart(int option) {
    FmgrFileManager::ReleaseInstance();
    mManager = FmgrFileManager::GetInstance(option);
    mManager->SetRootDirOfTemp(mRoot->Path());
  }

  // Adds a disk: "NAME FREEFILES RECORDING...".
  std::string Add(const std::string& disk, int size = 4096) {
    std::istringstream words(disk);
    std::string name;
    std::string recording;
    int freeFiles = 0;
    words >> name >> freeFiles;
    const std::string directory = mRoot->AddDisk(name, freeFiles, size);
    while (words >> recording) {
      const std::string path = MakeTestFile(PathOf(directory, recording), size);
      MakeTestFile(path.substr(0, path.rfind('/')) + "/search.fdb", 1);  // not empty, so it needs no rebuild
    }
    EXPECT_EQ(1, mManager->AddRepositoryGroup(directory));
    return directory;
  }

  // Names of the disks in rotation order.
  std::string Order() const {
    std::string order;
    for (const FmgrRepositoryGroup* group : mManager->mGroups) order += group->mName + " ";
    return order;
  }

  std::unique_ptr<TestRoot> mRoot;
  FmgrFileManager* mManager = nullptr;
};
