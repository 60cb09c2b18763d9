#include "apps/recorder/disks/Preparation.h"

#include <fcntl.h>
#include <sys/stat.h>
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
#include "apps/recorder/disks/DiskManifest.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/PreparationLeft.h"
#include "fmgr/FmgrFileManager.h"

namespace recorder {

namespace {

constexpr uint64_t kRoomForDatabases = 4 * kMiB;

Refusal RefuseLeftovers(const PreparationPlan& plan) {
  if (IsPreparationCutOff(plan.path)) {
    return "preparing " + plan.path + " was begun and not finished: " + HowToFinish(plan.root, plan.path);
  }
  if (Exists(plan.pool) || HoldsRecordings(plan.path)) return plan.path + " is prepared already";
  return std::nullopt;
}

// With those above it.
Refusal MakeDirectory(const std::string& path) {
  if (path.empty() || IsDirectory(path)) return std::nullopt;
  if (Refusal refusal = MakeDirectory(path.substr(0, path.rfind('/')))) return refusal;
  if (mkdir(path.c_str(), 0755) != 0) return "cannot make " + path + ": " + std::strerror(errno);
  Print("made directory %s\n", path.c_str());
  SyncDirectory(DirectoryOf(path));
  return std::nullopt;
}

Refusal LayDownReserve(const PreparationPlan& plan) {
  const std::string path = plan.path + "/" + kReserveFile;
  if (plan.reserve == 0) return std::nullopt;
  std::string error;
  if (LayDownFile(path, plan.reserve, &error)) return std::nullopt;
  return "cannot lay down " + path + ": " + error;
}

bool VerifyPool(const PreparationPlan& plan) {
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

int ReportIncomplete(const PreparationPlan& plan) {
  const int64_t made = CountLaidDown(plan.prealloc, plan.size);
  Complain(
      "only %" PRId64 " of %" PRId64 " files (%s) could be made: %s%s", made, plan.count,
      FormatSize(static_cast<uint64_t>(made) * plan.size).c_str(), HowToFinish(plan.root, plan.path).c_str(),
      made >= kFewestFiles ? (" (--resume --count " + std::to_string(made) + ": with what was made)").c_str()
                           : "");
  return kRefused;
}

// Data directories and search databases need room as well, and have to find it when the disk is full of
// recordings.
void WarnOfFullDisk(const PreparationPlan& plan) {
  Room room;
  if (LookAtRoom(plan.path, &room) || room.free >= kRoomForDatabases) return;
  Complain("warning: %s has only %s left for search databases; %s would do", plan.path.c_str(),
           FormatSize(room.free).c_str(), FormatSize(kRoomForDatabases).c_str());
}

void SayPlan(const PreparationPlan& plan, const Room& room) {
  if (!room.isMountPoint) {
    Print("%s is no mount point of its own: its files take room on the file system that it lies on\n",
          plan.path.c_str());
  }
  Print("laying down %" PRId64 " files of %s, %s, and a reserve file of %s; %s are free\n", plan.count,
        FormatSize(plan.size).c_str(), FormatSize(plan.size * static_cast<uint64_t>(plan.count)).c_str(),
        FormatSize(plan.reserve).c_str(), FormatSize(room.free).c_str());
  if (plan.seconds > 0) Print("they hold about %s\n", FormatSpan(plan.seconds).c_str());
}

// The pool is durable before the other names of its files go, and their going before the disk counts as
// prepared.
int Finish(const PreparationPlan& plan) {
  if (!SyncDisk(plan.path) || !RemovePrealloc(plan) || !SyncDisk(plan.path) || !VerifyPool(plan))
    return kRefused;
  WarnOfFullDisk(plan);
  Print("prepared %s: %" PRId64 " files of %s, %s\n", plan.path.c_str(), plan.count,
        FormatSize(plan.size).c_str(), FormatSize(plan.size * static_cast<uint64_t>(plan.count)).c_str());
  return kDone;
}

Refusal NoteInDisk(const PreparationPlan& plan) {
  const std::string reason = WriteManifest(plan.path, {plan.count, plan.size});
  return reason.empty() ? Refusal() : Refusal(reason);
}

int PrepareAnew(const PrepareOptions& options, PreparationPlan* plan, LockSet* locks) {
  Room room;
  Refusal refusal = RefuseLeftovers(*plan);
  if (!refusal) refusal = LookAtRoom(plan->path, &room);
  if (!refusal) refusal = PlanFiles(options, room, plan);
  if (!refusal) refusal = MakeDirectory(plan->path);
  if (!refusal) refusal = locks->TakeAll({plan->root, plan->path});
  if (!refusal) refusal = RefuseLeftovers(*plan);  // while nobody else prepares it
  if (!refusal) SayPlan(*plan, room);
  if (!refusal) refusal = NoteInDisk(*plan);
  if (!refusal) refusal = LayDownReserve(*plan);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  Progress progress(plan->size);
  const bool built = FmgrFileManager::BuildRepositoryGroup(plan->path, static_cast<unsigned>(plan->size / kMiB),
                                                           static_cast<unsigned>(plan->count), &progress) == 1;
  progress.End(built);
  return built ? Finish(*plan) : ReportIncomplete(*plan);
}

int FinishOrUndo(const PrepareOptions& options, PreparationPlan* plan, LockSet* locks) {
  Refusal refusal;
  if (!IsDirectory(plan->path)) refusal = "nothing was begun at " + plan->path;
  if (!refusal) refusal = locks->TakeAll({plan->root, plan->path});
  if (!refusal) refusal = RefuseNothingLeft(*plan, options.undo);
  if (!refusal && options.undo) refusal = UndoPreparation(*plan);
  if (!refusal && !options.undo) refusal = PlanRest(options.count, plan);
  if (!refusal && !options.undo) refusal = NoteInDisk(*plan);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  if (options.undo) return kDone;
  Progress progress(plan->size);
  const bool built = LayDownRest(*plan, &progress);
  progress.End(built);
  return built ? Finish(*plan) : ReportIncomplete(*plan);
}

}  // namespace

int Prepare(const PrepareOptions& options, const std::string& root) {
  PreparationPlan plan;
  LockSet locks("prepare");
  Refusal refusal = PlanPlace(options, root, &plan);
  if (!refusal) {
    // The root directory's first: whoever has that has it for all disks below it.
    for (const std::string& directory : {plan.root, plan.path}) {
      const std::optional<std::string> holder = refusal ? std::nullopt : HolderOf(directory);
      if (holder) refusal = directory + " is in use by " + *holder;
    }
  }
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  return options.resume || options.undo ? FinishOrUndo(options, &plan, &locks)
                                        : PrepareAnew(options, &plan, &locks);
}

bool IsPreparationCutOff(const std::string& path) { return Exists(path + "/imf_prealloc"); }

std::string HowToFinish(const std::string& root, const std::string& path) {
  const std::string recorder = "recorder --root " + root;
  if (HoldsRecordings(path)) {
    return recorder + " check --disk " + NameOf(path) + " --return-orphans finishes it";
  }
  return recorder + " prepare --disk " + NameOf(path) +
         " --resume finishes it, --undo in its place takes it back";
}

}  // namespace recorder
