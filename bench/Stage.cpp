#include "bench/Stage.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "bench/Report.h"
#include "fmgr/FmgrFileManager.h"
#include "platform/host/flc/FlcHost.h"

namespace bench {

namespace fs = std::filesystem;

void Stop(const std::string& what) {
  Say(what + ": " + std::strerror(errno));
  std::exit(2);
}

std::string DataDirectoryName(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "data_%08d", index);
  return name;
}

std::string CompletedName(uint32_t start, uint32_t end, uint32_t mask) {
  char name[48];
  std::snprintf(name, sizeof name, "%x_%x_cm%x.imf", start, end, mask);
  return name;
}

void MakeFile(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0) Stop(path);
  close(file);
}

void MakeRecordings(const std::string& directory, uint32_t start, int count, int seconds) {
  for (int i = 0; i < count; ++i, start += static_cast<uint32_t>(seconds)) {
    MakeFile(directory + "/" + CompletedName(start, start + static_cast<uint32_t>(seconds), 0xf));
  }
}

void MakeStubOfDatabase(const std::string& directory) {
  MakeFile(directory + "/search.fdb");
  if (truncate((directory + "/search.fdb").c_str(), 1) != 0) Stop(directory);
}

Stage::Stage(const Settings& settings) : mRoot(settings.directory + "/s") {
  fs::remove_all(mRoot);
  fs::create_directories(mRoot + "/disk");
}

Stage::~Stage() {
  if (mManager != nullptr) FmgrFileManager::ReleaseInstance();
  for (const std::string& name : mNames) FlcDetachDisk(name.c_str());
  fs::remove_all(mRoot);
}

std::string Stage::MakeDisk(const std::string& name) {
  const std::string disk = mRoot + "/disk/" + name;
  if (disk.size() > 39) {
    errno = ENAMETOOLONG;
    Stop(disk);
  }
  fs::create_directories(disk + "/imf_free");
  if (FlcAttachDisk(name.c_str(), disk.c_str()) != 0) Stop(disk);
  mNames.push_back(name);
  return disk;
}

std::string Stage::MakeDirectory(const std::string& disk, int index) {
  const std::string path = disk + "/" + DataDirectoryName(index) + "/";
  fs::create_directory(path);
  return path;
}

FmgrFileManager& Stage::Make() {
  if (mManager != nullptr) return *mManager;
  mManager = FmgrFileManager::GetInstance(0);
  mManager->SetRootDirOfTemp(mRoot);
  mManager->mOverwrite = 1;
  return *mManager;
}

FmgrFileManager& Stage::Add(const std::string& disk) {
  if (Make().AddRepositoryGroup(disk) != 1) Stop(disk);
  return *mManager;
}

}  // namespace bench
