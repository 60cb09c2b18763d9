#include "apps/recorder/disks/Disks.h"

#include <algorithm>
#include <filesystem>

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

// Any record file on it will do: a disk may have all of them in use, or free, or in quarantine.
bool HoldsFiles(const std::string& path) {
  for (const std::string& name : ListDirectory(path)) {
    if (name != "imf_free" && name != "imf_error" && name.rfind("data_", 0) != 0) continue;
    std::string directory = path + "/";
    directory += name;
    for (const std::string& file : ListDirectory(directory)) {
      if (HasSuffix(file, ".imf")) return true;
    }
  }
  return false;
}

// The last component of a data directory's path, which ends with a slash.
std::string NameOfDirectory(const FmgrDataRepository& repository) {
  const std::string& path = repository.Path();
  return path.empty() ? path : NameOf(path.substr(0, path.size() - 1));
}

// The file list cache follows no symbolic links, so neither does this.
bool IsRealDirectory(const std::string& pathWithSlash) {
  std::error_code error;
  return !pathWithSlash.empty() && std::filesystem::is_directory(std::filesystem::symlink_status(
                                       pathWithSlash.substr(0, pathWithSlash.size() - 1), error));
}

Refusal RefuseDisk(const std::string& root, const std::string& name, const std::vector<std::string>& others) {
  const std::string path = DiskPath(root, name);
  if (Refusal refusal = RefuseDiskName(name, others)) return refusal;
  if (Refusal refusal = RefuseDiskPath(path)) return refusal;
  if (!IsDirectory(path)) return "disk " + name + ": " + path + " is not a directory";
  if (!HoldsFiles(path)) {
    return "disk " + name + " holds no files: it is not mounted at " + path +
           ", or was never prepared (recorder prepare)";
  }
  return std::nullopt;
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
  if (disksNeeded && !IsDirectory(*root + "/disk")) {
    return *root + "/disk does not exist: there is no disk under this root directory";
  }
  return std::nullopt;
}

std::string DiskPath(const std::string& root, const std::string& name) { return root + "/disk/" + name; }

std::vector<std::string> ListDisks(const std::string& root) {
  std::vector<std::string> names;
  for (const std::string& name : ListDirectory(root + "/disk")) {
    if (IsDirectory(DiskPath(root, name))) names.push_back(name);
  }
  return names;
}

bool IsPrepared(const std::string& path) { return Exists(path + "/imf_free"); }

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

Disks::~Disks() {
  if (mManager != nullptr) FmgrFileManager::ReleaseInstance();
  for (const Disk& disk : mDisks) FlcDetachDisk(disk.name.c_str());
}

Refusal Disks::Choose(const std::string& root, const std::vector<std::string>& names) {
  mRoot = root;
  std::vector<std::string> chosen = names;
  std::vector<std::string> others = names;
  for (const std::string& name : ListDisks(root)) {
    const bool named = std::find(names.begin(), names.end(), name) != names.end();
    if (named) continue;
    if (IsPrepared(DiskPath(root, name))) {
      others.push_back(name);  // also when it isn't used: its path could be mistaken for another's
      if (names.empty()) chosen.push_back(name);
    } else if (names.empty() && IsPreparationCutOff(DiskPath(root, name))) {
      Complain("disk %s is left out: preparing it was cut off; %s", name.c_str(),
               HowToFinish(root, DiskPath(root, name)).c_str());
    } else if (names.empty()) {
      Complain("disk %s is left out: nothing prepared at %s, is it mounted?", name.c_str(),
               DiskPath(root, name).c_str());
    }
  }
  if (chosen.empty()) return "there is no prepared disk under " + root + "/disk";
  for (const std::string& name : chosen) {
    if (Refusal refusal = RefuseDisk(root, name, others)) return refusal;
  }
  for (const std::string& name : chosen) mDisks.push_back({name, DiskPath(root, name)});
  return std::nullopt;
}

// The cache has to know a disk before the manager asks about it, and the manager where disks are.
Refusal Disks::Attach(int option) {
  for (const Disk& disk : mDisks) {
    if (FlcAttachDisk(disk.name.c_str(), disk.path.c_str()) != 0) {
      return "disk " + disk.name + ": " + disk.path + " cannot be used as a disk";
    }
  }
  mManager = FmgrFileManager::GetInstance(option);
  if (mManager == nullptr) return "out of memory";
  mManager->SetRootDirOfTemp(mRoot);
  return std::nullopt;
}

Refusal Disks::OpenForRecording(const Recording& recording) {
  if (Refusal refusal = Attach(1)) return refusal;
  mManager->mOverwrite = recording.overwrite ? 1 : 0;
  mManager->SetPreserveLimitHour(recording.keep);
  // Before the first disk: it is repaired while it is added, and the application wants to hear of that.
  mManager->mGroupParamA = recording.observer;
  mManager->mGroupParamB = recording.segmentClose;
  for (const Disk& disk : mDisks) {
    if (IsPreparationCutOff(disk.path)) {
      Complain(
          "disk %s: preparing it was cut off; recorder --root %s check --disk %s --return-orphans finishes it",
          disk.name.c_str(), mRoot.c_str(), disk.name.c_str());
    }
    if (mManager->AddRepositoryGroup(disk.path) != 1) Complain("disk %s cannot be read", disk.name.c_str());
  }
  LeaveForeignDirectories();
  if (mManager->mGroups.empty()) return "none of the disks can be read";
  return std::nullopt;
}

Refusal Disks::OpenForLooking() {
  HostAllowCommands(false);
  if (Refusal refusal = Attach(0)) return refusal;
  // While this is not 0 and not 1, disks are read as for recording, but the links in /tmp stay as the recorder
  // set them. All that looks at disks afterwards expects them in the first list.
  mManager->mAltMode = 2;
  for (const Disk& disk : mDisks) {
    if (mManager->AddRepositoryGroup(disk.path) != 1) Complain("disk %s cannot be read", disk.name.c_str());
  }
  mManager->mGroups.splice(mManager->mGroups.end(), mManager->mAltGroups);
  mManager->mAltMode = 0;
  LeaveForeignDirectories();
  if (mManager->mGroups.empty()) return "none of the disks can be read";
  return std::nullopt;
}

void Disks::LeaveForeignDirectories() {
  bool left = false;
  for (FmgrRepositoryGroup* group : mManager->mGroups) {
    std::set<int> numbers;  // whose directory has the name that the file manager gives
    for (const FmgrDataRepository* repository : group->mDataRepositories) {
      if (NameOfDirectory(*repository) == repository->MakeRepositoryName(repository->Index())) {
        numbers.insert(repository->Index());
      }
    }
    group->mDataRepositories.remove_if([&](const FmgrDataRepository* repository) {
      const std::string name = NameOfDirectory(*repository);
      const bool regular = name == repository->MakeRepositoryName(repository->Index());
      if (IsRealDirectory(repository->Path()) && ParseDataDirectoryName(name) == repository->Index() &&
          (regular || numbers.insert(repository->Index()).second)) {
        return false;
      }
      if (mForeign.insert(repository->Path()).second) {
        Complain("%s is not a data directory, or a second one of its number: it is left alone",
                 repository->Path().c_str());
      }
      delete repository;
      left = true;
      return true;
    });
  }
  // What was left out may have put its disk in the wrong place of the rotation.
  if (left) {
    mManager->mGroups.sort([](const FmgrRepositoryGroup* a, const FmgrRepositoryGroup* b) {
      return a->GetLastIndex() < b->GetLastIndex();
    });
  }
}

FmgrRepositoryGroup* Disks::Group(const Disk& disk) const {
  for (FmgrRepositoryGroup* group : mManager->mGroups) {
    if (group->Path() == disk.path) return group;
  }
  return nullptr;
}

void Disks::ForgetCache() const {
  for (const Disk& disk : mDisks) FlcForget(disk.name.c_str(), -1);
}

}  // namespace recorder
