#include "apps/recorder/disks/Preparation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <set>

#include "apps/recorder/base/ExitStatus.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Progress.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/DirectoryLock.h"
#include "apps/recorder/disks/Disks.h"
#include "fmgr/FmgrFileManager.h"

namespace recorder {

namespace {

constexpr uint64_t kRoomForDatabases = 4 * kMiB;

struct Plan {
  std::string root;
  std::string path;  // the disk's directory
  std::string prealloc;
  std::string pool;
  uint64_t size = 0;  // bytes of one file
  int64_t count = 0;
};

Refusal RefuseLeftovers(const Plan& plan) {
  const bool prealloc = Exists(plan.prealloc);
  bool recordings = false;
  for (const std::string& name : ListDirectory(plan.path)) {
    recordings = recordings || name.rfind("data_", 0) == 0 || name == "imf_error";
  }
  if (prealloc && !recordings) {
    return "preparing " + plan.path + " was begun and not finished: remove " + plan.prealloc +
           (Exists(plan.pool) ? " and " + plan.pool : "") + ", then prepare it again";
  }
  if (recordings || Exists(plan.pool)) return plan.path + " is prepared already";
  return std::nullopt;
}

// The disk may be new, its place under ROOT as well.
Refusal MakeDirectory(const std::string& path) {
  if (IsDirectory(path)) return std::nullopt;
  if (mkdir(path.c_str(), 0755) != 0) return "cannot make " + path + ": " + std::strerror(errno);
  Print("made directory %s\n", path.c_str());
  return std::nullopt;
}

// The names in the pre-allocation directory go, the files stay in the pool. Nothing goes that isn't in both.
bool RemovePrealloc(const Plan& plan) {
  bool done = true;
  for (const std::string& name : ListDirectory(plan.prealloc)) {
    const std::string path = plan.prealloc + "/" + name;
    struct stat laid;
    struct stat pooled;
    if (lstat(path.c_str(), &laid) != 0 || lstat((plan.pool + "/" + name).c_str(), &pooled) != 0 ||
        laid.st_ino != pooled.st_ino || laid.st_dev != pooled.st_dev || unlink(path.c_str()) != 0) {
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

bool VerifyPool(const Plan& plan) {
  std::set<ino_t> files;
  int64_t wrong = 0;
  for (const std::string& name : ListDirectory(plan.pool)) {
    struct stat st;
    const bool right = lstat((plan.pool + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
                       static_cast<uint64_t>(st.st_size) == plan.size && HasSuffix(name, ".imf");
    if (right) files.insert(st.st_ino);
    if (!right) wrong++;
  }
  const auto found = static_cast<int64_t>(files.size());
  if (found == plan.count && wrong == 0) return true;
  Complain("the pool %s holds %" PRId64 " sound files instead of %" PRId64 ", and %" PRId64 " others",
           plan.pool.c_str(), found, plan.count, wrong);
  return false;
}

bool SyncDisk(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool done = fd >= 0 && syncfs(fd) == 0;
  if (!done) Complain("cannot write %s back: %s", path.c_str(), std::strerror(errno));
  if (fd >= 0) close(fd);
  return done;
}

int ReportIncomplete(const Plan& plan) {
  int64_t made = 0;
  for (const std::string& name : ListDirectory(plan.prealloc)) {
    struct stat st;
    // The file that failed is there, too, without its space.
    if (lstat((plan.prealloc + "/" + name).c_str(), &st) == 0 &&
        static_cast<uint64_t>(st.st_size) == plan.size) {
      made++;
    }
  }
  Complain("only %" PRId64 " of %" PRId64
           " files (%s) could be made; they are left in %s. Remove it and prepare again"
           " with a smaller --count",
           made, plan.count, FormatSize(static_cast<uint64_t>(made) * plan.size).c_str(),
           plan.prealloc.c_str());
  return kRefused;
}

// Data directories and search databases need room as well, and have to find it when the disk is full of
// recordings.
void WarnOfFullDisk(const Plan& plan) {
  struct statvfs room;
  if (statvfs(plan.path.c_str(), &room) != 0) return;
  const uint64_t left = static_cast<uint64_t>(room.f_bavail) * room.f_frsize;
  if (left >= kRoomForDatabases) return;
  Complain("warning: %s has only %s left for search databases; %s would do", plan.path.c_str(),
           FormatSize(left).c_str(), FormatSize(kRoomForDatabases).c_str());
}

Refusal MakePlan(const PrepareOptions& options, std::string root, Plan* plan) {
  const std::optional<uint64_t> size = ParseSize(options.size);
  if (!size) return "--size " + options.size + " is not a size: 64M and 1G are";
  if (Refusal refusal = RefuseGeometry(*size, options.count)) return refusal;
  if (Refusal refusal = ResolveRoot(&root, false)) return refusal;
  std::vector<std::string> others = ListDisks(root);
  if (Refusal refusal = RefuseDiskName(options.disk, others)) return refusal;
  plan->path = DiskPath(root, options.disk);
  if (Refusal refusal = RefuseDiskPath(plan->path)) return refusal;
  plan->root = root;
  plan->prealloc = plan->path + "/imf_prealloc";
  plan->pool = plan->path + "/imf_free";
  plan->size = *size;
  plan->count = options.count;
  return std::nullopt;
}

}  // namespace

int Prepare(const PrepareOptions& options, const std::string& root) {
  Plan plan;
  DirectoryLock lock;
  Refusal refusal = MakePlan(options, root, &plan);
  const std::string disks = plan.root + "/disk";
  if (!refusal) refusal = lock.Take(plan.root, "prepare");
  if (!refusal) refusal = RefuseLeftovers(plan);
  if (!refusal) refusal = MakeDirectory(disks);
  if (!refusal) refusal = MakeDirectory(plan.path);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }

  Progress progress(plan.size);
  const bool built = FmgrFileManager::BuildRepositoryGroup(plan.path, static_cast<unsigned>(plan.size / kMiB),
                                                           static_cast<unsigned>(plan.count), &progress) == 1;
  progress.End(built);
  if (!built) return ReportIncomplete(plan);
  // The pool is durable before the other names of its files go, and their going before the disk counts as
  // prepared.
  if (!SyncDisk(plan.path) || !RemovePrealloc(plan) || !SyncDisk(plan.path) || !VerifyPool(plan))
    return kRefused;
  if (!SyncDirectory(disks)) Complain("cannot write %s back: %s", disks.c_str(), std::strerror(errno));
  WarnOfFullDisk(plan);
  Print("prepared %s: %" PRId64 " files of %s, %s\n", plan.path.c_str(), plan.count,
        FormatSize(plan.size).c_str(), FormatSize(plan.size * static_cast<uint64_t>(plan.count)).c_str());
  return kDone;
}

}  // namespace recorder
