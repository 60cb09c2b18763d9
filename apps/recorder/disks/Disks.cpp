#include "apps/recorder/disks/Disks.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <list>
#include <set>
#include <tuple>
#include <utility>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/disks/DirectoryLock.h"
#include "apps/recorder/disks/Preparation.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/HostSystem.h"
#include "platform/host/flc/FlcHost.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

// Whether preparing or recording makes a directory of that name on a disk.
bool IsOfDisk(const std::string& name) {
  return name == "imf_free" || name == "imf_error" || name == "imf_prealloc" || name.rfind("data_", 0) == 0;
}

// The last component of a data directory's path, which ends with a slash.
std::string NameOfDirectory(const FmgrDataRepository& repository) {
  const std::string& path = repository.Path();
  return path.empty() ? path : NameOf(path.substr(0, path.size() - 1));
}

// Two askings: a device that stumbles once is no reason to do without a disk. 0 or errno.
int ListTwice(const std::string& path, std::vector<std::string>* names) {
  const int error = ListDirectory(path, names);
  return error == 0 || error == ENOENT || error == ENOTDIR ? error : ListDirectory(path, names);
}

// The file list cache follows no symbolic links, and goes into no other file system, so neither does this.
bool IsOwnDirectory(const Disk& disk, const std::string& pathWithSlash) {
  struct stat own;
  struct stat info;
  return pathWithSlash.size() > 1 && stat(disk.path.c_str(), &own) == 0 &&
         lstat(pathWithSlash.substr(0, pathWithSlash.size() - 1).c_str(), &info) == 0 &&
         S_ISDIR(info.st_mode) && info.st_dev == own.st_dev;
}

}  // namespace

Refusal MakeRootAbsolute(std::string* root) {
  while (root->size() > 1 && root->back() == '/') root->pop_back();  // as a shell completes it
  if (Refusal refusal = RefuseRoot(*root)) return refusal;
  std::error_code error;
  *root = std::filesystem::absolute(*root, error).lexically_normal().string();
  if (root->size() > 1 && root->back() == '/') root->pop_back();  // "." of a relative path leaves one behind
  if (error) return "cannot find the current directory: " + error.message();
  return RefuseRoot(*root);  // the current directory has a say in it
}

Refusal ResolveRoot(std::string* root, bool disksNeeded) {
  if (Refusal refusal = MakeRootAbsolute(root)) return refusal;
  if (!IsDirectory(*root)) return "root directory " + *root + " does not exist or is not a directory";
  if (!disksNeeded) return std::nullopt;
  struct stat st = {};
  const std::string disks = *root + "/disk";
  const bool isSeen = stat(disks.c_str(), &st) == 0 || stat(disks.c_str(), &st) == 0;
  if (!isSeen && errno != ENOENT && errno != ENOTDIR) return WhyNoDisk(*root, errno);
  if (!isSeen || !S_ISDIR(st.st_mode)) {
    return *root + "/disk does not exist: there is no disk under this root directory";
  }
  return std::nullopt;
}

std::string DiskPath(const std::string& root, const std::string& name) { return root + "/disk/" + name; }

std::vector<std::string> ListDisks(const std::string& root, int* error) {
  std::vector<std::string> names;
  std::vector<std::string> disks;
  const int result = ListTwice(root + "/disk", &names);
  if (error != nullptr) *error = result;
  for (const std::string& name : names) {
    struct stat st;
    const bool isSeen = stat(DiskPath(root, name).c_str(), &st) == 0;
    if (isSeen ? S_ISDIR(st.st_mode) : errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
      disks.push_back(name);
    }
  }
  return disks;
}

std::string WhyNoDisk(const std::string& root, int error) {
  return error == 0 ? "there is no disk under " + root + "/disk"
                    : root + "/disk can't be read: " + std::strerror(error);
}

std::optional<std::string> HolderOf(const std::string& root, const std::vector<Disk>& disks) {
  std::optional<std::string> holder = HolderOf(root);
  for (size_t i = 0; !holder && i < disks.size(); ++i) holder = HolderOf(disks[i].path);
  return holder;
}

Refusal TakeLocks(const std::string& root, const std::vector<Disk>& disks, LockSet* locks) {
  std::vector<std::string> directories = {root};
  for (const Disk& disk : disks) {
    const std::vector<std::string> names = ListDirectory(disk.path);
    // An empty mount point stays empty.
    if (std::any_of(names.begin(), names.end(), IsOfDisk)) directories.push_back(disk.path);
  }
  return locks->TakeAll(directories);
}

bool HoldsFiles(const std::string& path, int* error) {
  int ignored = 0;
  int& failed = error != nullptr ? *error : ignored;
  std::vector<std::string> names;
  std::vector<std::string> files;
  failed = ListTwice(path, &names);
  if (failed == ENOENT || failed == ENOTDIR) failed = 0;
  for (const std::string& name : names) {
    if (name != "imf_free" && name != "imf_error" && name.rfind("data_", 0) != 0) continue;
    std::string directory = path + "/";
    directory += name;
    const int broken = ListTwice(directory, &files);
    for (const std::string& file : files) {
      if (HasSuffix(file, ".imf")) return true;
    }
    if (broken != 0 && broken != ENOENT && broken != ENOTDIR) failed = broken;
  }
  return false;
}

std::string WhyMissing(const std::string& root, const Disk& disk) {
  int error = 0;
  if (IsPreparationCutOff(disk.path)) return "preparing it was cut off; " + HowToFinish(root, disk.path);
  HoldsFiles(disk.path, &error);
  return error == 0 ? "nothing prepared at " + disk.path + ", is it mounted?"
                    : disk.path + " can't be read: " + std::strerror(error);
}

Refusal RefuseDisk(const std::string& root, const std::string& name, const std::vector<std::string>& others) {
  if (Refusal refusal = RefuseDiskName(name, others)) return refusal;
  return RefuseDiskPath(DiskPath(root, name));
}

namespace {

using NamesChosen = std::vector<std::pair<std::string, bool>>;  // names, and whether they hold files

// Of two that can't be used together, the one that holds files, is in use, or has the shorter name: a copy has
// the longer one, as a rule.
Refusal ChooseAll(const std::string& root, NamesChosen* chosen) {
  using Rank = std::tuple<bool, bool, size_t, std::string>;
  std::vector<Rank> ranks;
  int error = 0;
  for (const std::string& name : ListDisks(root, &error)) {
    const std::string path = DiskPath(root, name);
    const bool holdsFiles = HoldsFiles(path);
    ranks.emplace_back(!holdsFiles, !(holdsFiles && HolderOf(path)), name.size(), name);
  }
  std::sort(ranks.begin(), ranks.end());
  std::vector<std::string> names;
  std::vector<std::pair<std::string, std::string>> leftOut;
  for (const auto& [holdsNothing, isFree, size, name] : ranks) {
    const Refusal refusal = RefuseDisk(root, name, names);
    if (!refusal) {
      names.push_back(name);
      chosen->emplace_back(name, !holdsNothing);
    }
    // What holds nothing is only told apart from what isn't a disk's mount point at all by its name.
    const bool isDisk = !holdsNothing || !RefuseDisk(root, name, {});
    if (refusal && isDisk) leftOut.emplace_back(name, *refusal);
  }
  if (chosen->empty()) return leftOut.empty() ? WhyNoDisk(root, error) : leftOut.front().second;
  for (const auto& [name, refusal] : leftOut) {
    Complain("disk %s is left out: %s", name.c_str(), refusal.c_str());
  }
  std::sort(chosen->begin(), chosen->end());
  return std::nullopt;
}

}  // namespace

Disks::~Disks() {
  if (mManager != nullptr) FmgrFileManager::ReleaseInstance();
  for (const Disk& disk : mDisks) FlcDetachDisk(disk.name.c_str());
}

Refusal Disks::Choose(const std::string& root, const std::vector<std::string>& names) {
  mRoot = root;
  NamesChosen chosen;
  if (names.empty()) {
    if (Refusal refusal = ChooseAll(root, &chosen)) return refusal;
  }
  for (const std::string& name : names) {
    if (Refusal refusal = RefuseDisk(root, name, names)) return refusal;
    chosen.emplace_back(name, HoldsFiles(DiskPath(root, name)));
  }
  for (const auto& [name, holdsFiles] : chosen) {
    const Disk disk = {name, DiskPath(root, name)};
    (holdsFiles ? mDisks : mMissing).push_back(disk);
    mChosen.push_back(disk);
  }
  return std::nullopt;
}

void Disks::Expect(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    const auto isIt = [&name](const Disk& each) { return each.name == name; };
    if (std::any_of(mChosen.begin(), mChosen.end(), isIt) || RefuseDiskName(name, {})) continue;
    mChosen.push_back({name, DiskPath(mRoot, name)});
    mMissing.push_back(mChosen.back());
  }
}

// The cache has to know a disk before the manager asks about it.
Refusal Disks::Attach(const Disk& disk) {
  if (FlcAttachDisk(disk.name.c_str(), disk.path.c_str()) == 0) return std::nullopt;
  return disk.path + " cannot be used as a disk: " + std::strerror(errno);
}

Refusal Disks::MakeManager(int option) {
  mManager = FmgrFileManager::GetInstance(option);
  if (mManager == nullptr) return "out of memory";
  mManager->SetRootDirOfTemp(mRoot);  // where disks are
  return std::nullopt;
}

Refusal Disks::OpenForRecording(const Recording& recording) {
  if (Refusal refusal = MakeManager(1)) return refusal;
  mManager->mOverwrite = recording.overwrite ? 1 : 0;
  mManager->SetPreserveLimitHour(recording.keep);
  // Before the first disk: it is repaired while it is added, and the application wants to hear of that.
  mManager->mGroupParamA = recording.observer;
  mManager->mGroupParamB = recording.segmentClose;
  mBegin = recording.begin;
  mDisks.clear();
  return std::nullopt;
}

// The file manager repairs and lists by names while it adds a disk, so what would mislead it has to go before.
Refusal Disks::Add(const Disk& disk) {
  if (IsPreparationCutOff(disk.path)) {
    Complain(
        "disk %s: preparing it was cut off; recorder --root %s check --disk %s --return-orphans finishes it",
        disk.name.c_str(), mRoot.c_str(), disk.name.c_str());
  }
  if (Refusal refusal = mVetting.Admit(disk, Now())) return refusal;
  if (Refusal refusal = Attach(disk)) return refusal;
  if (mManager->AddRepositoryGroup(disk.path) != 1) {
    FlcDetachDisk(disk.name.c_str());
    return disk.path + " cannot be read";
  }
  mDisks.push_back(disk);
  FmgrRepositoryGroup* group = Group(disk);
  if (Refusal refusal = mVetting.Settle(disk, *group)) {
    Remove(disk);
    return refusal;
  }
  PutInPlace(group);
  return std::nullopt;
}

void Disks::Remove(const Disk& disk) {
  const FmgrRepositoryGroup* group = Group(disk);
  if (group == nullptr) return;
  mManager->RemoveRepositoryGroup(disk.path);
  delete group;  // off the list it is nobody's
  FlcDetachDisk(disk.name.c_str());
  mDisks.erase(std::remove_if(mDisks.begin(), mDisks.end(),
                              [&disk](const Disk& each) { return each.path == disk.path; }),
               mDisks.end());
  mManager->ClearLink();
  mManager->SetLink();
}

Refusal Disks::OpenForLooking() {
  HostAllowCommands(false);
  if (Refusal refusal = MakeManager(0)) return refusal;
  // While this is not 0 and not 1, disks are read as for recording, but the links in /tmp stay as the recorder
  // set them. All that looks at disks afterwards expects them in the first list.
  mManager->mAltMode = 2;
  for (const Disk& disk : mMissing) {
    Complain("disk %s is left out: %s", disk.name.c_str(), WhyMissing(mRoot, disk).c_str());
  }
  for (const Disk& disk : mDisks) {
    Refusal refusal = mVetting.Look(disk, Now());
    if (!refusal) refusal = Attach(disk);
    if (!refusal && mManager->AddRepositoryGroup(disk.path) != 1) refusal = disk.path + " cannot be read";
    if (refusal) Complain("disk %s: %s", disk.name.c_str(), refusal->c_str());
  }
  mManager->mGroups.splice(mManager->mGroups.end(), mManager->mAltGroups);
  mManager->mAltMode = 0;
  for (const Disk& disk : mDisks) {
    FmgrRepositoryGroup* group = Group(disk);
    if (group == nullptr) continue;
    mVetting.Settle(disk, *group);
    PutInPlace(group);
  }
  if (!mManager->mGroups.empty()) return std::nullopt;
  if (!mDisks.empty()) return "none of the disks can be read";
  return "no disk is there: nothing is prepared under " + mRoot + "/disk, is it mounted?";
}

void Disks::LeaveForeignDirectories() {
  for (const Disk& disk : mDisks) {
    FmgrRepositoryGroup* group = Group(disk);
    if (group == nullptr) continue;
    std::set<int> numbers;  // whose directory has the name that the file manager gives
    for (const FmgrDataRepository* repository : group->mDataRepositories) {
      if (NameOfDirectory(*repository) == DataDirectoryName(repository->Index())) {
        numbers.insert(repository->Index());
      }
    }
    const std::list<FmgrDataRepository*> repositories = group->mDataRepositories;
    for (const FmgrDataRepository* repository : repositories) {
      const int index = repository->Index();
      const std::string name = NameOfDirectory(*repository);
      const bool isOnlyOne = name == DataDirectoryName(index) || numbers.insert(index).second;
      if (IsOwnDirectory(disk, repository->Path()) && ParseDataDirectoryName(name) == index &&
          IsUsualNumber(index) && isOnlyOne) {
        continue;
      }
      mVetting.LeaveOut(disk, *group, *repository,
                        "is no data directory of this disk, or a second one of its number");
    }
  }
}

bool Disks::MakeDirectory(FmgrRepositoryGroup& group) {
  int last = 0;
  for (const FmgrRepositoryGroup* each : mManager->mGroups) last = std::max(last, each->GetLastIndex());
  return group.MakeDataRepository(last + 1, 1) == 1;
}

void Disks::LeaveOut(const FmgrDataRepository& repository, const std::string& what) {
  for (const Disk& disk : mDisks) {
    FmgrRepositoryGroup* group = Group(disk);
    if (group == nullptr || repository.Path().rfind(disk.path + "/", 0) != 0) continue;
    mVetting.LeaveOut(disk, *group, repository, what);
    return;
  }
}

void Disks::PassOver(const std::string& path, const std::string& what) {
  for (const Disk& disk : mDisks) {
    if (path.rfind(disk.path + "/", 0) == 0) mVetting.PassOver(disk, path, what);
  }
}

void Disks::TryLeftOutAgain() {
  for (const Disk& disk : mDisks) {
    if (FmgrRepositoryGroup* group = Group(disk)) mVetting.TryAgain(disk, *group, Now());
  }
}

// What was left out may have put its disk in the wrong place of the rotation. As the file manager places it.
void Disks::PutInPlace(FmgrRepositoryGroup* group) {
  std::list<FmgrRepositoryGroup*>& groups = mManager->mGroups;
  groups.remove(group);
  groups.insert(std::find_if(groups.begin(), groups.end(),
                             [group](const FmgrRepositoryGroup* each) {
                               return each->GetLastIndex() >= group->GetLastIndex();
                             }),
                group);
}

int64_t Disks::Now() const { return std::max<int64_t>(std::time(nullptr), mBegin); }

FmgrRepositoryGroup* Disks::Group(const Disk& disk) const {
  for (FmgrRepositoryGroup* group : mManager->mGroups) {
    if (group->Path() == disk.path) return group;
  }
  return nullptr;
}

void Disks::ForgetCache() const {
  for (const Disk& disk : mDisks) mVetting.ForgetCache(disk, -1);
}

}  // namespace recorder
