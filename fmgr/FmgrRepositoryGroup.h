// All repositories of one disk: its free pool, its quarantine, and its data directories in ascending index
// order. The last data directory is the one being recorded to.
//
// Throughout, a data directory that has become empty is removed at once, so the first one always holds the
// oldest recordings. Failures log one line and return 0; nothing is undone.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <list>
#include <string>

#include "fmgr/Export.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrErrorRepository.h"
#include "fmgr/FmgrFreeRepository.h"

class FMGR_EXPORT FmgrRepositoryGroup {
 public:
  // The disk at `path`; its pools are listed at once, its data directories by DataRepositoryListUp. Recovery
  // mode not 0: data directories live in the driver's cache and are repaired when listed. Watch mode 1: the
  // disk's directory is watched. A path without "/" gives a group without a name, modes or watch.
  FmgrRepositoryGroup(std::string path, int recoveryMode, int watchMode);
  FmgrRepositoryGroup(std::string base, std::string name, int recoveryMode, int watchMode);
  FmgrRepositoryGroup(const FmgrRepositoryGroup&) = delete;
  FmgrRepositoryGroup& operator=(const FmgrRepositoryGroup&) = delete;
  virtual ~FmgrRepositoryGroup();

  const std::string& Path() const { return mPath; }

  // --- Data directories ---

  // Builds the list from the data directories under `path`. 1 also when there is none. 0: what was listed so
  // far stays. A directory whose files can't be listed is logged and left out.
  int DataRepositoryListUp(std::string path);
  // Adds data directory `index` (-1: the next) at the end of the list; make 1 also creates and registers it. 0
  // with a line logged when the index is not above the last, or the directory can't be made.
  int MakeDataRepository(int index, int make);
  // Removes the data directory of the lowest index from disk and list. 0 when there is none or it is not empty.
  int RemoveOldestDataRepository();
  // Drops the object of that index and leaves the disk alone. 1 also when there is none of that index; 0 when
  // the group has no data directory at all.
  int RemoveRepositoryInstance(int index);
  // Merges the group's data directories into `out` by start time, behind entries of the same start. Pointers
  // are lent until the group changes.
  void GetDataRepository(std::list<FmgrDataRepository*>& out);
  int GetRecordFileCount() const;
  int GetDataRepositoryCount() const;
  int GetFreeFileCount() const;
  // Bytes of one record file of this disk, 0 when it has none.
  int GetFileSize() const;
  // 1 when a stream that starts at `time` must not go into the last data directory: it starts more than 5
  // seconds before the end of what is recorded there.
  int IsNeedChangeRepository(int time);
  int GetFirstIndex() const;
  int GetLastIndex() const;
  // Smallest start time, 0 when there is none; -1 when a data directory is empty.
  int GetStartTime() const;
  // Lent; null when there is none.
  FmgrDataRepository* GetOldestDataRepository() const;
  // Start of the oldest data directory, -1 when there is none.
  int GetStartTimeSec() const;
  // Polls the watches of the data directories.
  void CheckRepository();

  // --- Record files (GroupRecords.cpp) ---

  // Makes a record file in the last data directory. 1 and its path; 0 without a free file or a data directory.
  int MakeRecordFile(timeval& start, std::string& path);
  // Recycles the oldest file of the first data directory that has one. 1 done; 0 when there is none, or the
  // file or an empty data directory can't be removed.
  int RemoveOldestRecordFile();
  // Recycles the oldest file of the first data directory when it started before `limit` (seconds since the
  // epoch). 1 also when it did not and so stays; 0 as above.
  int RemoveTimeOverRecordFile(long limit);
  // Whether the oldest file ended at or before `limit`. Removes the empty data directories that it comes
  // across.
  int IsExistTimeOverFile(long limit);
  // 1 and earliest start and latest end; 0 and both 0.
  int GetTimeRange(int& start, int& end) const;

  // --- The disk's directory, changed by others (GroupWatch.cpp) ---

  void InitWatchDirectory(std::string& path);
  void DeInitWatchDirectory();
  // Adopts data directories that appeared and drops those that vanished since the last call; never blocks.
  void WatchDirectory();

  // The application's recovery observer and segment-close interface, and the directory that holds "disk/NAME"
  // for every disk. Set by the owner before DataRepositoryListUp; borrowed.
  RecoveryObserver* mParamA = nullptr;
  ImfSegmentCloseInterface* mParamB = nullptr;
  int32_t mReserved = 0;
  std::string mPath;  // without a slash at its end
  std::string mName;  // last component of mPath; its first 8 bytes are the disk's name for the driver
  std::string mTempRoot;
  FmgrFreeRepository mFreeRepository;
  FmgrErrorRepository mErrorRepository;
  std::list<FmgrDataRepository*> mDataRepositories;  // owned

 private:
  int32_t mRecoveryMode = 0;
  int32_t mWatchMode = 0;
  int32_t mInotifyFd = -1;
  int32_t mWatchFd = -1;
  alignas(8) char mEventBuffer[32768];
};
