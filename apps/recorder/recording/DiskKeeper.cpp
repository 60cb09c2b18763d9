#include "apps/recorder/recording/DiskKeeper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/recording/DirectoryNumbers.h"
#include "apps/recorder/recording/ForeignFiles.h"

namespace recorder {

namespace {

constexpr int64_t kLongestWait = 30;  // times the time between two looks

int64_t Uptime() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

bool Identify(const std::string& path, std::pair<dev_t, ino_t>* identity) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return false;
  *identity = {info.st_dev, info.st_ino};
  return true;
}

// Whether a disk takes what is written to it: a file without a name, which nothing is left of. 0, or the error.
// A full disk can still record, since its files are laid down already, and not every file system knows files
// without a name.
int TryToWrite(const std::string& disk) {
  struct statvfs info = {};
  if (statvfs(disk.c_str(), &info) != 0) return errno;
  if ((info.f_flag & ST_RDONLY) != 0) return EROFS;
  const int fd = open(disk.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  int error = fd < 0 ? errno : 0;
  if (fd >= 0) {
    const char block[4096] = {};
    if (write(fd, block, sizeof block) < 0 || fsync(fd) != 0) error = errno;
    close(fd);
  }
  return error == EOPNOTSUPP || error == EISDIR || error == ENOSPC || error == EDQUOT ? 0 : error;
}

}  // namespace

bool IsDiskError(int error) {
  switch (error) {
    case EIO:
    case EROFS:
    case ENODEV:
    case ENXIO:
    case ESTALE:
    case ENOTCONN:
    case EUCLEAN:
    case EBADMSG:
    case EREMOTEIO:
    case ETIMEDOUT:
    case ESHUTDOWN:
      return true;
    default:
      return false;
  }
}

DiskKeeper::DiskKeeper(Disks& disks, LockSet& locks, SearchIndex& index, Recovery& recovery, Options options)
    : mDisks(disks),
      mLocks(locks),
      mIndex(index),
      mRecovery(recovery),
      mOptions(options),
      mMounts(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
  for (const Disk& disk : disks.Chosen()) mSlots.push_back({{disk, DiskState::kMissing, "", 0}, {}, 0, 0});
  mClockDoubted = ReadState(disks.Root()).clockDoubted;
}

DiskKeeper::~DiskKeeper() {
  if (mMounts >= 0) close(mMounts);
}

void DiskKeeper::Start() {
  MountsChanged();
  TakeIn(true, true);
  mNextLook = Uptime() + mOptions.retrySeconds;
  Publish();
}

void DiskKeeper::Look() {
  const int64_t now = Uptime();
  const bool mounted = MountsChanged();
  for (Slot& slot : mSlots) {
    std::pair<dev_t, ino_t> identity;
    if (slot.state.use != DiskState::kUsed) continue;
    if (!Identify(slot.state.disk.path, &identity) || identity != slot.identity) {
      TakeOff(slot, "is not at its place any more");
    } else if (const Refusal refusal = mLocks.Confirm(slot.state.disk.path)) {
      TakeOff(slot, *refusal);
    }
  }
  if (!mounted && now < mNextLook) return;
  mNextLook = now + mOptions.retrySeconds;
  if (mOptions.allDisks) FindNew();
  if (HasUnused()) TakeIn(false, mounted || !HasDisk() || mIsFull);
}

bool DiskKeeper::AskAgain() {
  if (HasUnused()) TakeIn(false, true);
  return HasDisk();
}

void DiskKeeper::FindNew() {
  std::vector<std::string> others;
  for (const Slot& slot : mSlots) others.push_back(slot.state.disk.name);
  for (const std::string& name : ListDisks(mDisks.Root())) {
    const Disk disk = {name, DiskPath(mDisks.Root(), name)};
    const bool known = std::find(others.begin(), others.end(), name) != others.end();
    if (known || RefuseDisk(mDisks.Root(), name, others) || !HoldsFiles(disk.path)) continue;
    mSlots.push_back({{disk, DiskState::kMissing, "", 0}, {}, 0, 0});
    others.push_back(name);
  }
}

// What keeps a disk from being used, before anything of it is touched; kUsed when nothing does.
DiskState DiskKeeper::Vet(const Disk& disk, const std::vector<std::string>& others) {
  DiskState state = {disk, DiskState::kUsed, "", std::time(nullptr)};
  const int fd = open(disk.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int error = fd < 0 ? errno : 0;
  if (fd >= 0) close(fd);
  int unread = 0;
  const bool isThere = error == 0 && HoldsFiles(disk.path, &unread);
  if (error != 0 && error != ENOENT && error != ENOTDIR) {
    state.use = DiskState::kAside;
    state.what = std::string("cannot be opened: ") + std::strerror(error);
  } else if (unread != 0) {
    state.use = DiskState::kAside;
    state.what = std::string("cannot be read: ") + std::strerror(unread);
  } else if (!isThere) {
    state.use = DiskState::kMissing;
    state.what = WhyMissing(mDisks.Root(), disk);
  } else if (const int refused = TryToWrite(disk.path)) {
    state.use = DiskState::kAside;
    state.what = std::string("cannot be written to: ") + std::strerror(refused);
  } else {
    Refusal refusal = RefuseDisk(mDisks.Root(), disk.name, others);
    if (!refusal) refusal = mLocks.Take(disk.path);
    if (!refusal) return state;
    state.use = DiskState::kAside;
    state.what = *refusal;
  }
  mLocks.Release(disk.path);
  return state;
}

// Gives the directories of all disks numbers in the order of time. A disk of which one changes is taken off the
// file manager first, and joins again with those that are `joining`.
void DiskKeeper::Order(std::vector<Slot*>* joining) {
  std::vector<Slot*> slots = *joining;
  for (Slot& slot : mSlots) {
    if (slot.state.use == DiskState::kUsed) slots.push_back(&slot);
  }
  std::vector<Disk> disks;
  std::vector<DirectoryList> lists;
  for (const Slot* slot : slots) {
    disks.push_back(slot->state.disk);
    lists.push_back(ListNumberedDirectories(slot->state.disk.path));
  }
  const std::vector<Renumbering> plan =
      PlanNumbers(lists, mOptions.clockIsToday ? std::time(nullptr) : INT64_MAX);
  if (plan.empty()) return;
  mIndex.Close();
  for (const Renumbering& each : plan) {
    if (std::find(joining->begin(), joining->end(), slots[each.disk]) != joining->end()) continue;
    mDisks.Remove(slots[each.disk]->state.disk);
    joining->push_back(slots[each.disk]);
  }
  Renumber(disks, plan);
}

void DiskKeeper::TakeIn(bool starting, bool evenSick) {
  std::vector<Slot*> joining;
  std::vector<std::string> others;
  for (const Slot& slot : mSlots) {
    if (slot.state.use == DiskState::kUsed) others.push_back(slot.state.disk.name);
  }
  for (Slot& slot : mSlots) {
    if (slot.state.use == DiskState::kUsed || (!evenSick && Uptime() < slot.nextTry)) continue;
    const Disk& disk = slot.state.disk;
    const DiskState state = Vet(disk, others);
    if (state.use == DiskState::kUsed) {
      joining.push_back(&slot);
      others.push_back(disk.name);
    } else {
      if (state.use == DiskState::kMissing) slot.wait = slot.nextTry = 0;  // who brings it back has seen to it
      NoteState(slot, state.use, state.what);
    }
  }
  if (joining.empty()) return;
  mJoins++;

  Order(&joining);
  std::vector<Disk> disks;
  for (const Slot* slot : joining) disks.push_back(slot->state.disk);
  mRecovery.NoteState(disks);
  for (Slot* slot : joining) {
    const bool isBack = !starting && slot->state.use != DiskState::kUsed;
    if (const Refusal refusal = mDisks.Add(slot->state.disk)) {
      mLocks.Release(slot->state.disk.path);
      NoteState(*slot, DiskState::kAside, *refusal);
      continue;
    }
    Identify(slot->state.disk.path, &slot->identity);
    slot->state.use = DiskState::kUsed;
    slot->state.what.clear();
    if (isBack) Print("disk %s is used from now on\n", slot->state.disk.name.c_str());
  }
  mRecovery.ReportState(mDisks, disks);
  mRecovery.Settle();
  mDisks.LeaveForeignDirectories();
  for (const Disk& disk : disks) {
    FmgrRepositoryGroup* group = mDisks.Group(disk);
    if (group == nullptr) continue;
    RemoveEmptyDirectories(mDisks, disk, *group);
    SearchIndex::Mend(disk.path);
  }
  if (!starting) Publish();
}

DiskKeeper::Slot* DiskKeeper::SlotOf(const std::string& path) {
  for (Slot& slot : mSlots) {
    const bool isOn = (path + "/").rfind(slot.state.disk.path + "/", 0) == 0;
    if (isOn && slot.state.use == DiskState::kUsed) return &slot;
  }
  return nullptr;
}

void DiskKeeper::TakeOff(Slot& slot, const std::string& what) {
  const Disk& disk = slot.state.disk;
  mIndex.Close();
  mDisks.Remove(disk);
  mLocks.Release(disk.path);  // so that it can be unmounted
  NoteState(slot, DiskState::kAside, what);
}

void DiskKeeper::SetAside(const std::string& path, const std::string& what, int error) {
  Slot* slot = SlotOf(path);
  if (slot == nullptr) return;
  const int64_t step = mOptions.retrySeconds;
  slot->wait = slot->wait == 0 ? step : std::min(slot->wait * 2, kLongestWait * step);
  slot->nextTry = slot->wait > step ? Uptime() + slot->wait : 0;
  TakeOff(*slot, error == 0 ? what : what + ": " + std::strerror(error));
}

void DiskKeeper::NoteRecorded(const std::string& path) {
  mIsFull = false;
  if (Slot* slot = SlotOf(path)) slot->wait = slot->nextTry = 0;
}

// One line whenever what is wrong with a disk is another thing than before.
void DiskKeeper::NoteState(Slot& slot, DiskState::Use use, const std::string& what) {
  DiskState& state = slot.state;
  if (state.use == use && state.what == what) return;
  if (state.use != use || state.since == 0) state.since = std::time(nullptr);
  state.use = use;
  state.what = what;
  const int64_t left = slot.nextTry - Uptime();
  const std::string when = left > mOptions.retrySeconds
                               ? "in " + FormatDuration(static_cast<double>(left)) + ", since it failed again"
                               : "every " + FormatDuration(mOptions.retrySeconds);
  Complain("disk %s is %s: %s; it is looked at again %s", state.disk.name.c_str(),
           use == DiskState::kMissing ? "missing" : "set aside", what.c_str(), when.c_str());
  Publish();
}

bool DiskKeeper::HasDisk() const {
  return std::any_of(mSlots.begin(), mSlots.end(),
                     [](const Slot& slot) { return slot.state.use == DiskState::kUsed; });
}

bool DiskKeeper::HasUnused() const {
  return std::any_of(mSlots.begin(), mSlots.end(),
                     [](const Slot& slot) { return slot.state.use != DiskState::kUsed; });
}

std::vector<DiskState> DiskKeeper::States() const {
  std::vector<DiskState> states;
  for (const Slot& slot : mSlots) states.push_back(slot.state);
  return states;
}

void DiskKeeper::SayNoDisk(int64_t dropped) {
  const int64_t now = Uptime();
  if (now < mNextNoDisk) return;
  mNextNoDisk = now + mOptions.retrySeconds;
  std::string disks;
  for (const Slot& slot : mSlots) {
    const bool isFull = slot.state.use == DiskState::kUsed;  // else it would be recorded to
    disks += (disks.empty() ? "" : "; ") + slot.state.disk.name + ": " +
             (isFull ? "every file holds a recording" : slot.state.what);
  }
  Complain("nothing is recorded, no disk can be used (%s); %s dropped so far", disks.c_str(),
           FormatCount(dropped, "packet").c_str());
}

void DiskKeeper::DoubtClock(int64_t since) {
  if (since == mClockDoubted) return;
  mClockDoubted = since;
  Publish();
}

void DiskKeeper::Publish() {
  RecorderState state;
  state.clockDoubted = mClockDoubted;
  for (const Slot& slot : mSlots) {
    if (slot.state.use != DiskState::kUsed) state.disks.push_back(slot.state);
  }
  if (!WriteState(mDisks.Root(), state)) {
    Complain("cannot write %s/.recorder.state: %s; status does not know which disks are set aside",
             mDisks.Root().c_str(), std::strerror(errno));
  }
}

bool DiskKeeper::MountsChanged() {
  pollfd mounts = {mMounts, POLLPRI, 0};
  return mMounts >= 0 && poll(&mounts, 1, 0) > 0 && (mounts.revents & (POLLPRI | POLLERR)) != 0;
}

}  // namespace recorder
