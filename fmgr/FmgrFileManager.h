// The library's entry: one object per process that owns the disks and answers every request of the recorder.
//
//   FmgrFileManager* manager = FmgrFileManager::GetInstance(0);
//   manager->SetRootDirOfTemp("/rec");              // disks are reached at /rec/disk/NAME
//   manager->AddRepositoryGroup("/rec/disk/sda1");
//   ...
//   manager->CheckRepositoryChangeCondition(start.tv_sec);   // before each segment, directly followed by
//   manager->MakeRecordFile(start, path);                    // 0: write to path
//   manager->RenameRecordFile(path, end, channels, newPath); // once, when the segment is closed
//
// Threads: none inside; not guarded: one caller at a time. Nothing is thrown: failures are results, with one
// line on standard error. Partial work is never rolled back.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <list>
#include <string>

#include "ImfSearchCondition.h"
#include "IpcMenu.h"
#include "ProgressIndicator.h"
#include "fmgr/Export.h"

class FmgrDataRepository;
class FmgrRepositoryGroup;
class ImfSegmentCloseInterface;
class RecoveryObserver;
struct TimeSearchChart;

// Results of the record operations.
enum fmgr_result_e {
  FMGR_DONE = 0,
  FMGR_NO_SPACE = 2,           // no free file, and nothing may be or could be overwritten
  FMGR_CAN_NOT_MAKE = 11,      // a data directory or a record file could not be made
  FMGR_NO_DISK_OR_OWNER = 12,  // no disk is managed, no directory owns the path, or nothing was found
};

class FMGR_EXPORT FmgrFileManager {
 public:
  using GroupList = std::list<FmgrRepositoryGroup*>;

  // --- The instance ---

  // The instance, made with `option` on the first call; null when memory is short. Option 1: the disks'
  // directories are watched for data directories that others make or delete.
  static FmgrFileManager* GetInstance(int option);
  // Destroys the instance with its groups and clears the driver's cache. 1 done, 0 when there was none.
  static int ReleaseInstance();
  explicit FmgrFileManager(int option);
  FmgrFileManager(const FmgrFileManager&) = delete;
  FmgrFileManager& operator=(const FmgrFileManager&) = delete;
  virtual ~FmgrFileManager();
  static FmgrFileManager* mpFileManager;

  // --- Preparing a disk ---

  // Lays down `count` files of `sizeMiB` MiB in MOUNT/imf_prealloc and links them into MOUNT/imf_free. 1 done;
  // 0 with lines logged, and what was made stays. The disk is not added, and removing MOUNT/imf_prealloc is the
  // caller's last step. `indicator` may be null.
  static int BuildRepositoryGroup(std::string mount, unsigned sizeMiB, unsigned count,
                                  ProgressIndicator* indicator);
  // While a build runs: MiB in the free pool; `preallocMiB` gets the MiB in the pre-allocation directory. Both
  // 0 while that holds no file. `mount` is not null.
  int RemainRecordSize(const char* mount, int& preallocMiB) const;
  // Free MiB over all disks. `totalMiB` adds the recorded MiB, and counts a disk's free MiB again for every
  // later disk: exact for one disk only, deliberately kept.
  int GetRemainSize(int& totalMiB) const;

  // --- Disks (ManagerDisks.cpp) ---

  // For disks added afterwards: the directory that holds "disk/NAME" for each of them.
  void SetRootDirOfTemp(std::string dir);
  // Adds a disk, with recovery of its last recordings. 1 done; 0 with a line logged when it is managed already
  // or can't be listed.
  int AddRepositoryGroup(std::string mount);
  // Takes the disk off the list. The group object stays alive, for callers that still hold it: deleting it is
  // the application's business. The links are not refreshed.
  void RemoveRepositoryGroup(std::string mount);
  // Destroys every group. Always 1.
  int CleanUpRepositoryGroup();
  // The disk being recorded to: the last of the list, null when there is none.
  FmgrRepositoryGroup* CurrentRepositoryGroup() const;
  // The first disk without a record file; the disk whose first data directory has the smallest number.
  // Positions in mGroups, its end for none.
  GroupList::iterator FindEmptyGroupIter();
  GroupList::iterator FindNextGroupIterator();
  // Makes the next disk current and a new data directory on it: a disk without recordings first, else the one
  // with the oldest. `force` 1 also starts a data directory when there is no other disk to go to. Non-zero:
  // recording can go on; 0: no disk, none with any file, or the directory could not be made, and the disks keep
  // the order reached.
  int ChangeToNextGroup(int force);
  // Takes the current disk off the list, as RemoveRepositoryGroup does, so that the previous one becomes
  // current. 1; 0 with fewer than two disks.
  int ForceChangeCurrentDisk();
  // The disk with the smallest GetStartTimeSec(), so one without recordings (-1) before all; null without a
  // disk.
  FmgrRepositoryGroup* GetOldestRepositoryGroup() const;
  // Points /tmp/curr_disk at the current disk and /tmp/curr_rep at its newest data directory; removes them. The
  // result of the last link call; 0 when there is nothing to point at.
  int SetLink();
  int ClearLink();
  // Whether recording can go on: FMGR_DONE, FMGR_NO_SPACE or FMGR_NO_DISK_OR_OWNER.
  int CheckFileManagerStatus();
  // 1 when recording on the current disk would overwrite.
  unsigned IsWorkDiskOverwrite();
  // Polls the watches of the disks' directories.
  void CheckRepository();

  // --- Recording (ManagerRecords.cpp) ---

  // Hands out a record file for a stream that starts at `time` (its seconds count). FMGR_DONE and the path,
  // else FMGR_NO_SPACE, FMGR_CAN_NOT_MAKE or FMGR_NO_DISK_OR_OWNER. Starts must be strictly ascending.
  int MakeRecordFile(timeval& time, std::string& path);
  // To be called right before MakeRecordFile: starts a new data directory, or goes to the next disk, when a
  // stream that starts at `newTime` would lie before what is recorded already (the clock was set back).
  void CheckRepositoryChangeCondition(int newTime);
  // Non-zero when data directory `index` was made on the current disk.
  int CreateDataRepository(int index);
  // Makes data directory 1 on the current disk when that has none. FMGR_DONE, FMGR_CAN_NOT_MAKE or
  // FMGR_NO_DISK_OR_OWNER.
  int MakeCheckInitDataRepository();
  // Recycles the oldest record file of all disks. 1 done, 0 not.
  int RemoveOldestRecordFile();
  // Quarantines a record file; errorCode 1 tells the recovery observer. 1 done, also for a path that belongs to
  // no data directory; 0 without a disk, or when the file stays where it is. Meant for the file being recorded
  // only: the newest entry of its directory is dropped.
  int MoveRecordFileToErrorRepository(std::string path, int errorCode);
  // Completes a record file with its end time and channel mask. FMGR_DONE and its new path (the renaming itself
  // is not checked), or FMGR_NO_DISK_OR_OWNER.
  int RenameRecordFile(const std::string& path, int endTime, unsigned mask, std::string& newPath);
  // Any value that is not in the menu's list: no limit.
  void SetPreserveLimitHour(ipc_preserve_limit_e limit);
  // Recycles recordings that are older than the limit, at most `rounds` of them.
  void CheckPreserveTime(int rounds);

  // --- Playback, search, menus (ManagerQueries.cpp) ---

  // The file for a time over all disks; `path` is written only when there is one. mode > 0: the one that covers
  // it, else the next; of several the one that ends first. Else the last that started by then; of several the
  // one that ends last. FMGR_DONE or FMGR_NO_DISK_OR_OWNER.
  int GetFilePath(int time, std::string& path, int mode);
  // The recording after, or before, that at `path`, over all disks. FMGR_DONE, or FMGR_NO_DISK_OR_OWNER at the
  // last one, at the first one, and for a path outside every data directory. The one after a file in progress
  // is that file itself.
  unsigned GetNextFilePath(const std::string& path, std::string& next);
  unsigned GetPrevFilePath(const std::string& path, std::string& prev);
  // 1 and earliest start and latest end, or 0 and both 0. The second one over mAltGroups.
  int GetTimeRange(int& start, int& end) const;
  int GetExternalTimeRange(int& start, int& end) const;
  // 1 when at least one search database was read into the chart. The chart's hints start afresh.
  int CollectSearchData(TimeSearchChart* chart) const;
  // FMGR_DONE when `files` is not empty afterwards, else FMGR_NO_DISK_OR_OWNER. Paths are appended.
  int CollectFileList(std::list<std::string>& files, const ImfSearchCondition& condition) const;
  // Fills the menu's entries in use from the disks of the same path. 1, or 0 without a disk.
  int CollectTimeRange(ipc_menu_disk_stream_t& menu) const;
  // The nearest month with recordings in local time, from `month` (1 to 12) of `year` on (direction >= 1: later
  // months) or back (direction <= 0: earlier ones). 1 and the month, or 0. Looking for later months, a
  // recording in progress that started by then is answered with the month of its start: a walk ends where the
  // month does not advance. 0 as well for a month that no calendar has, and for one that begins outside the
  // times that record files can have, 1970 to 2106.
  unsigned GetRecentlyMonthInfo(int year, int month, int& outYear, int& outMonth, int direction) const;
  // Over all disks, or for the disk of that path, 0 when it is not managed.
  int GetAllDataRepositoryCount() const;
  int GetFreeFileCount() const;
  int GetFreeFileCount(std::string diskPath) const;
  int GetTotalFileCount(std::string diskPath) const;

  // The application's recovery observer and segment-close interface; handed to every disk added afterwards.
  RecoveryObserver* mGroupParamA = nullptr;
  ImfSegmentCloseInterface* mGroupParamB = nullptr;
  std::string mTempRoot;
  // 1: the oldest recordings may be overwritten when every disk is full. Set by the application.
  int32_t mOverwrite = 0;
  // The disks, in rotation order; the last is current. Owned.
  GroupList mGroups;
  // Used instead of mGroups while mAltMode is not 0. The library never sets mAltMode.
  GroupList mAltGroups;
  int32_t mPreserveLimitHour = 0;  // hours, 0: no limit
  int32_t mSpare = 0;
  int32_t mAltMode = 0;
  int32_t mGroupOption;

 private:
  // The number of the data directory that follows the group's last one.
  static int NextIndex(const FmgrRepositoryGroup& group);
  const GroupList& ActiveGroups() const { return mAltMode != 0 ? mAltGroups : mGroups; }
  GroupList& ActiveGroups() { return mAltMode != 0 ? mAltGroups : mGroups; }
};
