// The disks under a root directory, and the file manager that manages them: for recording, or only for looking.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "IpcMenu.h"
#include "apps/recorder/disks/Refusals.h"
#include "apps/recorder/disks/Vetting.h"

class FmgrDataRepository;
class FmgrFileManager;
class FmgrRepositoryGroup;
class ImfSegmentCloseInterface;
class RecoveryObserver;

namespace recorder {

class LockSet;

struct Disk {
  std::string name;
  std::string path;  // ROOT/disk/NAME, absolute, without a slash at its end
};

// Makes `root` absolute, whether there is such a directory or not. Refuses one that does not suit.
Refusal MakeRootAbsolute(std::string* root);
// The same, and refuses one that is no directory, or has no "disk" directory in it
// (when `disksNeeded`).
Refusal ResolveRoot(std::string* root, bool disksNeeded);
std::string DiskPath(const std::string& root, const std::string& name);
// Names of the directories in ROOT/disk, and of what a sick disk keeps from being looked at. `error` (may be
// null): 0, or the errno for which ROOT/disk can't be listed.
std::vector<std::string> ListDisks(const std::string& root, int* error = nullptr);
// What to say when there is none of them.
std::string WhyNoDisk(const std::string& root, int error);
// Whether a disk's directory holds any record file, in use, free, or in quarantine. Without one it is an empty
// mount point, or was never prepared. `error` (may be null): 0, or the errno for which that can't be told.
bool HoldsFiles(const std::string& path, int* error = nullptr);
// What is to be said of one that doesn't.
std::string WhyMissing(const std::string& root, const Disk& disk);
// What keeps a disk's name or path from being used beside `others`.
Refusal RefuseDisk(const std::string& root, const std::string& name, const std::vector<std::string>& others);

// Who holds the lock of the root directory, or else of one of the disks: a recorder may use them by another
// root. As HolderOf in DirectoryLock.h.
std::optional<std::string> HolderOf(const std::string& root, const std::vector<Disk>& disks);

// The locks of the root directory and of all disks that are there, or none of them.
Refusal TakeLocks(const std::string& root, const std::vector<Disk>& disks, LockSet* locks);

// Owns the process's file manager. One object at a time; the destructor releases the manager.
class Disks {
 public:
  struct Recording {
    bool overwrite = true;
    ipc_preserve_limit_e keep = IPC_PRESERVE_UNLIMITED;
    RecoveryObserver* observer = nullptr;
    ImfSegmentCloseInterface* segmentClose = nullptr;
    int64_t begin = 0;  // seconds since the epoch: when recordings may begin although it is ahead of the clock
  };

  Disks() = default;
  ~Disks();
  Disks(const Disks&) = delete;
  Disks& operator=(const Disks&) = delete;

  // Chooses the disks called `names`, and refuses names that can't be used. When there is none, all under the
  // root directory that can be used; the others are left out, with a line. Of those chosen, the ones that hold
  // nothing are missing. `root` is absolute.
  Refusal Choose(const std::string& root, const std::vector<std::string>& names);
  // Has those of `names` missing that were not chosen. Behind Choose().
  void Expect(const std::vector<std::string>& names);

  // Makes the file manager ready to record, without any disk yet; whoever keeps the disks adds them.
  Refusal OpenForRecording(const Recording& recording);
  // Adds a disk that isn't missing to the file manager, which repairs what a crash left behind. The caller
  // holds the locks. Nothing, or a line's end that says what is wrong: then it is not added.
  Refusal Add(const Disk& disk);
  // Takes a disk off the file manager and the file list cache. Without effect when it isn't there.
  void Remove(const Disk& disk);
  // Manages all disks that aren't missing beside a recorder at work: repairs nothing, runs no command, leaves
  // the links in /tmp alone.
  Refusal OpenForLooking();

  const std::string& Root() const { return mRoot; }
  // Those that were chosen and aren't missing; while recording, those that are managed.
  const std::vector<Disk>& All() const { return mDisks; }
  // As found by Choose().
  const std::vector<Disk>& Chosen() const { return mChosen; }
  const std::vector<Disk>& Missing() const { return mMissing; }
  FmgrFileManager* Manager() const { return mManager; }
  // The disk's group in the file manager; null when it isn't managed any more.
  FmgrRepositoryGroup* Group(const Disk& disk) const;
  // Takes out of the file manager's list what came since the disk was added and only looks like a data
  // directory: "data_old", a link of such a name, a second directory of one number, a number that leaves none
  // for further ones. It would be counted as number 0 or as the other one, and stand in the way of recycling.
  // One line each, once; the next start sets it aside. To be called whenever disks were polled.
  void LeaveForeignDirectories();
  // Makes a data directory behind those of all disks. False when it can't be made.
  bool MakeDirectory(FmgrRepositoryGroup& group);
  // Takes a data directory out of the list while recording; see Vetting.
  void LeaveOut(const FmgrDataRepository& repository, const std::string& what);
  // Takes a recording out of the list that can't be moved; see Vetting.
  void PassOver(const std::string& path, const std::string& what);
  const Vetting& Vetted() const { return mVetting; }
  // Takes back what can be used again by now.
  void TryLeftOutAgain();
  // Drops what the file list cache keeps of all disks: it is read afresh from the file names.
  void ForgetCache() const;
  // The same for one data directory.
  void ForgetCache(const Disk& disk, int index) const { mVetting.ForgetCache(disk, index); }

 private:
  Refusal MakeManager(int option);
  static Refusal Attach(const Disk& disk);
  void PutInPlace(FmgrRepositoryGroup* group);
  int64_t Now() const;

  std::string mRoot;
  std::vector<Disk> mDisks;
  std::vector<Disk> mChosen;
  std::vector<Disk> mMissing;
  Vetting mVetting;
  int64_t mBegin = 0;
  FmgrFileManager* mManager = nullptr;
};

}  // namespace recorder
