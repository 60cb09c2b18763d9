#include "apps/recorder/recording/ForeignFiles.h"

#include <sys/stat.h>

#include <map>
#include <string>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/disks/Disks.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/flc/FlcHost.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void MoveAside(FmgrRepositoryGroup& group, std::string path) {
  group.mErrorRepository.Push(path);  // finds a free name; whether the file moved has to be looked up
  if (Exists(path)) {
    Complain("%s does not belong there and cannot be moved to quarantine", path.c_str());
  } else {
    Print("moved to quarantine %s: it is not one of the recorder's files\n", path.c_str());
  }
}

void SaveDirectory(const Disk& disk, FmgrRepositoryGroup& group, const FmgrDataRepository& repository) {
  // Of several files with one start time only one is known: the one that ends last.
  std::map<uint32_t, std::pair<uint32_t, std::string>> known;
  bool moved = false;
  for (const std::string& name : ListDirectory(repository.Path())) {
    if (name.rfind("search.fdb", 0) == 0) continue;
    const std::string path = repository.Path() + name;
    RecordName parsed{};
    if (!ParseRecordName(name, &parsed) || !IsRegularFile(path)) {
      MoveAside(group, path);
      moved = true;
      continue;
    }
    auto& file = known[parsed.startTime];
    std::string surplus = path;
    if (file.second.empty() || parsed.endTime >= file.first) {
      surplus = file.second;
      file = {parsed.endTime, path};
    }
    if (surplus.empty()) continue;
    MoveAside(group, surplus);
    moved = true;
  }
  const int count = static_cast<int>(known.size());
  if (!moved && repository.GetFileCount() == count) return;
  FlcForget(disk.name.c_str(), repository.Index());
  if (repository.GetFileCount() == count) return;
  // Still no agreement, as when two directories claim one number: in quarantine they are safe.
  for (const auto& file : known) MoveAside(group, file.second.second);
  FlcForget(disk.name.c_str(), repository.Index());
}

}  // namespace

void SaveForeignFiles(const Disk& disk, FmgrRepositoryGroup& group) {
  for (const FmgrDataRepository* repository : group.mDataRepositories) {
    if (repository->Path().empty() || repository->GetFileCount() > kSmallDirectory) continue;
    SaveDirectory(disk, group, *repository);
  }
}

// The last one stays: it is about to be recorded to.
void RemoveEmptyDirectories(const Disk& disk, FmgrRepositoryGroup& group) {
  SaveForeignFiles(disk, group);
  while (group.GetDataRepositoryCount() > 1 && group.mDataRepositories.front()->GetFileCount() == 0) {
    if (group.RemoveOldestDataRepository() != 1) return;
  }
}

}  // namespace recorder
