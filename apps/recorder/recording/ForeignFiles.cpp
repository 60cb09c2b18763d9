#include "apps/recorder/recording/ForeignFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/disks/SetAside.h"
#include "apps/recorder/recording/SearchIndex.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// False: it is still there.
bool MoveAside(const Disk& disk, FmgrRepositoryGroup& group, std::string path) {
  group.mErrorRepository.Push(path);  // finds a free name; whether the file moved has to be looked up
  if (!Exists(path)) {
    Print("moved to quarantine %s: it is not one of the recorder's files\n", path.c_str());
    return true;
  }
  const SetAsideResult result = SetAside(disk.path, path);
  if (result.to.empty()) return false;
  Complain("%s is not one of the recorder's files: set aside as %s", path.c_str(), result.to.c_str());
  return true;
}

// To the next data directory, or to a new one. Nothing is replaced there.
void MoveOn(Disks& disks, const Disk& disk, FmgrRepositoryGroup& group, const FmgrDataRepository& from,
            const std::vector<std::string>& recordings) {
  if (recordings.empty()) return;
  const auto isFrom = [&from](const FmgrDataRepository* each) { return each == &from; };
  auto next = std::find_if(group.mDataRepositories.begin(), group.mDataRepositories.end(), isFrom);
  if (next != group.mDataRepositories.end()) ++next;
  if (next == group.mDataRepositories.end()) {
    if (!disks.MakeDirectory(group)) return;
    next = std::prev(group.mDataRepositories.end());
  }
  const FmgrDataRepository& to = **next;
  for (const std::string& path : recordings) {
    std::string taken;
    const int start = FmgrDataRepository::FileNameToStartTimeSec(NameOf(path));
    if (to.FindFileNameByStartTime(start, taken) || !RenameToNew(path, to.Path() + NameOf(path))) {
      Complain("%s can't be moved to %s: it is passed over", path.c_str(), to.Path().c_str());
    } else {
      Print("moved %s to %s\n", path.c_str(), to.Path().c_str());
    }
  }
  if (!SyncDirectory(to.Path())) {
    Complain("cannot write %s back: %s", to.Path().c_str(), std::strerror(errno));
  }
  disks.ForgetCache(disk, to.Index());
  SearchIndex::Rebuild(to.Path());
  SearchIndex::Rebuild(from.Path());
}

void SaveDirectory(Disks& disks, const Disk& disk, FmgrRepositoryGroup& group,
                   const FmgrDataRepository& repository) {
  // Of several files with one start time only one is known: the one that ends last.
  std::map<uint32_t, std::pair<uint32_t, std::string>> known;
  bool moved = false;
  bool stuck = false;
  const auto moveAside = [&](const std::string& path) {
    (MoveAside(disk, group, path) ? moved : stuck) = true;
  };
  for (const std::string& name : ListDirectory(repository.Path())) {
    if (name.rfind("search.fdb", 0) == 0) continue;
    const std::string path = repository.Path() + name;
    if (disks.Vetted().IsPassedOver(disk, path)) {
      stuck = true;
      continue;
    }
    RecordName parsed{};
    if (!ParseRecordName(name, &parsed) || !IsRegularFile(path) || IsForeignRecord(path, parsed)) {
      moveAside(path);
      continue;
    }
    auto& file = known[parsed.startTime];
    std::string surplus = path;
    if (file.second.empty() || parsed.endTime >= file.first) {
      surplus = file.second;
      file = {parsed.endTime, path};
    }
    if (!surplus.empty()) moveAside(surplus);
  }
  const int count = static_cast<int>(known.size());
  if (moved || repository.GetFileCount() != count) {
    disks.ForgetCache(disk, repository.Index());
    if (repository.GetFileCount() != count && !stuck) {
      // Still no agreement, as when two directories claim one number: in quarantine they are safe.
      for (const auto& file : known) moveAside(file.second.second);
      disks.ForgetCache(disk, repository.Index());
      known.clear();
    }
  }
  if (!stuck) return;
  std::vector<std::string> recordings;
  for (const auto& file : known) recordings.push_back(file.second.second);
  MoveOn(disks, disk, group, repository, recordings);
  disks.LeaveOut(repository, kHoldsForeign);
}

}  // namespace

void SaveForeignFiles(Disks& disks, const Disk& disk, FmgrRepositoryGroup& group) {
  const std::list<FmgrDataRepository*> repositories = group.mDataRepositories;
  for (const FmgrDataRepository* repository : repositories) {
    if (repository->Path().empty() || repository->GetFileCount() > kSmallDirectory) continue;
    SaveDirectory(disks, disk, group, *repository);
  }
}

// The last one stays: it is about to be recorded to.
void RemoveEmptyDirectories(Disks& disks, const Disk& disk, FmgrRepositoryGroup& group) {
  SaveForeignFiles(disks, disk, group);
  while (group.GetDataRepositoryCount() > 1 && group.mDataRepositories.front()->GetFileCount() == 0) {
    if (group.RemoveOldestDataRepository() != 1) return;
  }
}

}  // namespace recorder
