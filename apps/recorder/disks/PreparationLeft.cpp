#include "apps/recorder/disks/PreparationLeft.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <map>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/DiskManifest.h"
#include "apps/recorder/disks/Preparation.h"
#include "fmgr/FmgrRepository.h"

namespace recorder {

namespace {

// A name that preparing gives.
bool IsNumbered(const std::string& name) {
  return name.size() == 12 && HasSuffix(name, ".imf") && name.find_first_not_of("0123456789") == 8;
}

std::string NumberedName(int64_t number) { return FmgrRepository::MakeFileName(static_cast<int>(number)); }

std::map<uint64_t, int64_t> CountBySize(const std::string& directory) {
  std::map<uint64_t, int64_t> counts;
  for (const std::string& name : ListDirectory(directory)) {
    struct stat info = {};
    if (!IsNumbered(name) || lstat((directory + "/" + name).c_str(), &info) != 0) continue;
    if (S_ISREG(info.st_mode)) counts[static_cast<uint64_t>(info.st_size)]++;
  }
  return counts;
}

bool IsSameFile(const std::string& one, const std::string& other) {
  struct stat a = {};
  struct stat b = {};
  return lstat(one.c_str(), &a) == 0 && lstat(other.c_str(), &b) == 0 && a.st_ino == b.st_ino &&
         a.st_dev == b.st_dev;
}

// The file at which the disk was full, when fewer are wanted now.
void RemoveIncomplete(const PreparationPlan& plan) {
  for (const std::string& name : ListDirectory(plan.prealloc)) {
    const std::string path = plan.prealloc + "/" + name;
    struct stat info = {};
    if (!IsNumbered(name) || name < NumberedName(plan.count) || lstat(path.c_str(), &info) != 0) continue;
    if (S_ISREG(info.st_mode) && static_cast<uint64_t>(info.st_size) != plan.size) unlink(path.c_str());
  }
}

// Empty, or why not.
std::string Remove(const std::string& directory, int64_t* removed) {
  for (const std::string& name : ListDirectory(directory)) {
    const std::string path = directory + "/" + name;
    struct stat info = {};
    if (!IsNumbered(name) || lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (unlink(path.c_str()) != 0) return "cannot remove " + path + ": " + std::strerror(errno);
    if (info.st_nlink == 1) ++*removed;
  }
  if (rmdir(directory.c_str()) == 0 || errno == ENOENT) return "";
  return "cannot remove " + directory + ": " + std::strerror(errno);
}

}  // namespace

bool HoldsRecordings(const std::string& path) {
  const std::vector<std::string> names = ListDirectory(path);
  return std::any_of(names.begin(), names.end(), [](const std::string& name) {
    return name.rfind("data_", 0) == 0 || name == "imf_error";
  });
}

int64_t CountLaidDown(const std::string& directory, uint64_t size) { return CountBySize(directory)[size]; }

Refusal RefuseNothingLeft(const PreparationPlan& plan, bool undo) {
  const bool isCutOff = IsPreparationCutOff(plan.path);
  if (HoldsRecordings(plan.path)) {
    return plan.path + " is in use already" +
           (isCutOff ? ", and preparing it was never finished: " + HowToFinish(plan.root, plan.path) : "");
  }
  if (isCutOff) return std::nullopt;
  if (Exists(plan.pool)) return plan.path + " is prepared already: nothing of it is left to finish or undo";
  // Cut off before the first file, there is nothing to go on from, but something to take back.
  if (undo && Exists(plan.path + "/" + kManifestName)) return std::nullopt;
  return "nothing was begun at " + plan.path;
}

Refusal PlanRest(const std::optional<int64_t>& count, PreparationPlan* plan) {
  const std::optional<DiskManifest> manifest = ReadManifest(plan->path);
  std::map<uint64_t, int64_t> sizes = CountBySize(plan->prealloc);
  for (const auto& [size, number] : CountBySize(plan->pool)) sizes[size] = std::max(sizes[size], number);
  int64_t most = 0;
  for (const auto& [size, number] : sizes) {
    if (size == 0 || number <= most) continue;
    plan->size = size;
    most = number;
  }
  // Disks that were begun by an earlier version do not say how many files there were to be.
  plan->count = most;
  if (manifest) {
    plan->size = manifest->fileBytes;
    plan->count = manifest->files;
    most = sizes[plan->size];
  }
  if (count) plan->count = *count;
  if (count && *count < most) {
    return std::to_string(most) + " files are laid down at " + plan->path + " already: --undo takes them back";
  }
  if (Refusal refusal = RefuseGeometry(plan->size, plan->count)) return refusal;
  Room room;
  if (Refusal refusal = LookAtRoom(plan->path, &room)) return refusal;
  const int64_t fitting = CountThatFits(room, plan->size, 0);
  if (plan->count - most <= fitting) return std::nullopt;
  return std::to_string(plan->count - most) + " files of " + FormatSize(plan->size) +
         " are still to be made at " + plan->path + ", and " + std::to_string(fitting) + " fit into the " +
         FormatSize(room.free) + " that are free: --resume --count " + std::to_string(most + fitting) +
         ", or --undo";
}

bool LayDownRest(const PreparationPlan& plan, ProgressIndicator* progress) {
  RemoveIncomplete(plan);
  progress->BeginStage(static_cast<int>(plan.count), PROGRESS_STAGE_PRE_ALLOCATE);
  for (int64_t i = 0; i < plan.count; ++i) {
    const std::string path = plan.prealloc + "/" + NumberedName(i);
    std::string error;
    if (!Exists(plan.pool + "/" + NumberedName(i)) && !LayDownFile(path, plan.size, &error)) {
      Complain("cannot lay down %s: %s", path.c_str(), error.c_str());
      return false;
    }
    progress->mCurrent = static_cast<int>(i);
    progress->Refresh();
  }
  // Not before all are there: with a pool, the disk can be recorded to.
  if (mkdir(plan.pool.c_str(), 0755) != 0 && errno != EEXIST) {
    Complain("cannot make %s: %s", plan.pool.c_str(), std::strerror(errno));
    return false;
  }
  for (int64_t i = 0; i < plan.count; ++i) {
    const std::string path = plan.prealloc + "/" + NumberedName(i);
    if (link(path.c_str(), (plan.pool + "/" + NumberedName(i)).c_str()) == 0 || errno == EEXIST) continue;
    if (errno == ENOENT && Exists(plan.pool + "/" + NumberedName(i))) continue;  // only its first name is gone
    Complain("cannot put %s into the pool: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  return true;
}

bool RemovePrealloc(const PreparationPlan& plan) {
  bool done = true;
  for (const std::string& name : ListDirectory(plan.prealloc)) {
    const std::string path = plan.prealloc + "/" + name;
    if (!IsSameFile(path, plan.pool + "/" + name) || unlink(path.c_str()) != 0) {
      Complain("%s is not in the pool and stays", path.c_str());
      done = false;
    }
  }
  if (done && rmdir(plan.prealloc.c_str()) != 0) {
    Complain("cannot remove %s: %s", plan.prealloc.c_str(), std::strerror(errno));
    done = false;
  }
  return done;
}

// The pre-allocation directory goes after the pool: as long as it is there, this can be done again.
Refusal UndoPreparation(const PreparationPlan& plan) {
  int64_t removed = 0;
  for (const std::string& directory : {plan.pool, plan.prealloc}) {
    const std::string reason = Remove(directory, &removed);
    if (!reason.empty()) return reason;
  }
  for (const std::string& name :
       {std::string(kReserveFile), "." + std::string(kManifestName) + ".new", std::string(kManifestName)}) {
    const std::string path = plan.path + "/" + name;
    if (unlink(path.c_str()) == 0 || errno == ENOENT) continue;
    return "cannot remove " + path + ": " + std::strerror(errno);
  }
  if (!SyncDirectory(plan.path)) return "cannot write " + plan.path + " back: " + std::strerror(errno);
  Print("undone: %" PRId64 " files at %s are removed\n", removed, plan.path.c_str());
  return std::nullopt;
}

bool LayDownFile(const std::string& path, uint64_t size, std::string* error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
  struct stat info = {};
  const auto length = static_cast<off_t>(size);
  if (fd >= 0 && fstat(fd, &info) == 0 && (!S_ISREG(info.st_mode) || info.st_nlink != 1)) {
    *error = "something else is there";
  } else if (fd < 0 || fallocate(fd, 0, 0, length) != 0 || ftruncate(fd, length) != 0) {
    *error = std::strerror(errno);
  }
  if (fd >= 0) close(fd);
  return error->empty();
}

}  // namespace recorder
