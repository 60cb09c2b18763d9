#include "apps/recorder/disks/Vetting.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <set>
#include <vector>

#include "Flc.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/SetAside.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/flc/FlcHost.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr int64_t kBetweenTries = 60;  // seconds

int64_t Monotonic() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec;
}

int IndexOf(const std::string& pathWithSlash) {
  return ParseDataDirectoryName(NameOf(pathWithSlash.substr(0, pathWithSlash.size() - 1)));
}

std::string WithSlash(const std::string& path) { return path.back() == '/' ? path : path + "/"; }

bool IsOfPool(const Disk& disk, const std::string& path) {
  return DirectoryOf(path) == disk.path + "/imf_free/";
}

// The cache knows files by their starts. What it knows by this one's may be another file, a recording: that
// stays.
void DropFromCache(const Disk& disk, const std::string& path) {
  RecordName record{};
  if (!ParseRecordName(NameOf(path), &record)) return;
  const int index = IndexOf(DirectoryOf(path));
  flc_file_info_param_t known = FlcFileParam(nullptr, index, record.startTime);
  if (FlcGetFileByTime(disk.name.c_str(), &known) == 0 && known.startTime == record.startTime) {
    std::string name;
    FmgrDataRepository::FlcFileInfoToFileName(name, known);
    if (name != NameOf(path) && Exists(DirectoryOf(path) + name)) return;
  }
  FlcRemoveFile(disk.name.c_str(), index, record.startTime);
}

// Takes the directories called so out of the group's list.
void Drop(FmgrRepositoryGroup& group, const std::set<std::string>& paths) {
  group.mDataRepositories.remove_if([&](const FmgrDataRepository* repository) {
    if (paths.count(repository->Path()) == 0) return false;
    delete repository;
    return true;
  });
}

// As the group makes them for what it lists itself.
void Adopt(const Disk& disk, FmgrRepositoryGroup& group, const std::string& path) {
  const std::string name = NameOf(path.substr(0, path.size() - 1));
  FlcForget(disk.name.c_str(), IndexOf(path));
  auto repository = std::make_unique<FmgrDataRepository>(group.Path(), name, &group.mFreeRepository,
                                                         &group.mErrorRepository, 1u);
  repository->mLinkRoot = group.mTempRoot;
  repository->mRecoveryObserver = group.mParamA;
  repository->mSegmentClose = group.mParamB;
  const auto position =
      std::find_if(group.mDataRepositories.begin(), group.mDataRepositories.end(),
                   [&](const FmgrDataRepository* each) { return each->Index() >= repository->Index(); });
  group.mDataRepositories.insert(position, repository.release());
}

}  // namespace

Refusal Vetting::Look(const Disk& disk, int64_t now) {
  Vetted& vetted = mDisks[disk.path];
  vetted = {};
  vetted.found = Inspect(disk.path, now);
  if (!vetted.found.unusable.empty()) return vetted.found.unusable;
  return std::nullopt;
}

Refusal Vetting::Admit(const Disk& disk, int64_t now) {
  if (Refusal refusal = Look(disk, now)) return refusal;
  Vetted& vetted = mDisks[disk.path];
  vetted.recording = true;
  if (const int64_t missing = vetted.found.Missing()) {
    Complain("disk %s: %" PRId64 " of the %" PRId64
             " files that were laid down are not there; recorder check may tell more",
             disk.name.c_str(), missing, vetted.found.manifest->files);
  }
  std::vector<OddEntry> stays;
  for (const OddEntry& odd : vetted.found.odd) {
    const SetAsideResult result = SetAside(disk.path, odd.path);
    if (result.to.empty()) {
      Complain("%s %s, and can't be set aside: %s", odd.path.c_str(), odd.what.c_str(),
               std::strerror(result.error));
      stays.push_back(odd);
      continue;
    }
    Complain("%s %s: set aside as %s", odd.path.c_str(), odd.what.c_str(), result.to.c_str());
    if (IsOfPool(disk, odd.path)) --vetted.found.pool;
  }
  vetted.found.odd = stays;
  return MakePool(disk);
}

Refusal Vetting::MakePool(const Disk& disk) {
  const std::string pool = disk.path + "/imf_free";
  if (Exists(pool)) return std::nullopt;
  if (!HoldsFiles(disk.path)) return pool + " is not there";  // an empty mount point stays empty
  if (mkdir(pool.c_str(), 0755) == 0) return std::nullopt;
  return "cannot make " + pool + ": " + std::strerror(errno);
}

Refusal Vetting::Settle(const Disk& disk, FmgrRepositoryGroup& group) {
  Vetted& vetted = mDisks[disk.path];
  std::list<std::string>& pool = group.mFreeRepository.files;
  // The file manager takes a pool that it could not list for an empty one, and would recycle instead.
  const auto isShort = [&] {
    return vetted.recording && static_cast<int64_t>(pool.size()) < vetted.found.pool;
  };
  if (isShort()) {
    pool.clear();
    group.mFreeRepository.ListUp();
  }
  if (isShort()) {
    return disk.path + "/imf_free could not be listed";
  }
  std::vector<OddEntry> passedOver = vetted.found.closed;
  if (vetted.recording) {
    passedOver.insert(passedOver.end(), vetted.found.fixed.begin(), vetted.found.fixed.end());
  }
  for (const OddEntry& each : passedOver)
    Complain("%s %s: it is passed over", each.path.c_str(), each.what.c_str());
  passedOver.insert(passedOver.end(), vetted.found.odd.begin(), vetted.found.odd.end());

  std::set<std::string> directories;
  std::set<std::string> poolNames;
  for (const OddEntry& each : passedOver) {
    const std::string path = WithSlash(each.path);
    if (IsOfPool(disk, each.path)) {
      poolNames.insert(NameOf(each.path));
    } else if (DirectoryOf(path.substr(0, path.size() - 1)) == disk.path + "/") {
      directories.insert(path);
      vetted.leftOut[path] = each.what;
    } else {
      vetted.passedOver.insert(each.path);
      DropFromCache(disk, each.path);
    }
  }
  pool.remove_if([&](const std::string& name) { return poolNames.count(name) != 0; });
  Drop(group, directories);
  vetted.tryAgain = Monotonic() + kBetweenTries;
  // The file list cache reads for itself, and may come across what the inspection did not.
  for (auto entry = group.mDataRepositories.begin(); entry != group.mDataRepositories.end();) {
    const FmgrDataRepository& repository = **entry++;
    if (repository.GetFileCount() < 0) LeaveOut(disk, group, repository, "can't be read");
  }
  CountOnAbove(vetted, group);
  return std::nullopt;
}

void Vetting::LeaveOut(const Disk& disk, FmgrRepositoryGroup& group, const FmgrDataRepository& repository,
                       const std::string& what) {
  const std::string path = repository.Path();
  Vetted& vetted = mDisks[disk.path];
  Complain("%s %s: it is passed over", path.c_str(), what.c_str());
  vetted.leftOut[path] = what;
  vetted.tryAgain = Monotonic() + kBetweenTries;
  Drop(group, {path});
  CountOnAbove(vetted, group);
}

const Inspection* Vetting::Found(const Disk& disk) const {
  const auto known = mDisks.find(disk.path);
  return known == mDisks.end() ? nullptr : &known->second.found;
}

// The file manager would want to make a directory of the number behind its last one, and could not.
void Vetting::CountOnAbove(const Vetted& vetted, FmgrRepositoryGroup& group) {
  if (!vetted.recording) return;
  int highest = -1;
  for (const auto& [path, what] : vetted.leftOut) {
    if (IsUsualNumber(IndexOf(path))) highest = std::max(highest, IndexOf(path));
  }
  if (highest >= 0 && group.GetLastIndex() <= highest) group.MakeDataRepository(highest + 1, 1);
}

void Vetting::PassOver(const Disk& disk, const std::string& path, const std::string& what) {
  Vetted& vetted = mDisks[disk.path];
  if (vetted.said.insert(path).second) Complain("%s %s: it is passed over", path.c_str(), what.c_str());
  vetted.passedOver.insert(path);
  DropFromCache(disk, path);
}

bool Vetting::IsPassedOver(const Disk& disk, const std::string& path) const {
  const auto known = mDisks.find(disk.path);
  return known != mDisks.end() && known->second.passedOver.count(path) != 0;
}

void Vetting::ForgetCache(const Disk& disk, int index) const {
  FlcForget(disk.name.c_str(), index);
  const auto known = mDisks.find(disk.path);
  if (known == mDisks.end()) return;
  for (const std::string& path : known->second.passedOver) DropFromCache(disk, path);
}

void Vetting::TryAgain(const Disk& disk, FmgrRepositoryGroup& group, int64_t now) {
  const auto known = mDisks.find(disk.path);
  if (known == mDisks.end() || Monotonic() < known->second.tryAgain) return;
  Vetted& vetted = known->second;
  vetted.tryAgain = Monotonic() + kBetweenTries;
  std::set<int> movable;  // data directories with what can be moved by now, as far as it can be told
  for (auto path = vetted.passedOver.begin(); path != vetted.passedOver.end();) {
    if (IsImmutable(*path)) {
      ++path;
      continue;
    }
    movable.insert(IndexOf(DirectoryOf(*path)));
    path = vetted.passedOver.erase(path);
  }
  for (const int index : movable) ForgetCache(disk, index);
  if (vetted.leftOut.empty()) return;
  const Inspection found = Inspect(disk.path, now);
  if (!found.unusable.empty()) return;
  std::set<std::string> still;
  for (const auto* list : {&found.odd, &found.closed, &found.fixed}) {
    for (const OddEntry& each : *list) still.insert(WithSlash(each.path));
  }
  for (auto entry = vetted.leftOut.begin(); entry != vetted.leftOut.end();) {
    const std::string path = entry->first;
    if (still.count(path) != 0 || entry->second == kHoldsForeign) {
      ++entry;
      continue;
    }
    entry = vetted.leftOut.erase(entry);
    if (!Exists(path) || !IsUsualNumber(IndexOf(path))) continue;
    Adopt(disk, group, path);
    Print("%s can be used again\n", path.c_str());
  }
}

}  // namespace recorder
