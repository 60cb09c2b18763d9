// One numbered data directory (data_N) of record files on one disk.
//
// A record file's name is the truth about it (RecordFileName.h has the grammar). The list of record files is
// kept in the file list cache driver (cache mode) or in `files` (list mode: bare names, oldest first); the
// constructor's cache flag decides. Every move of a file is mirrored in that list; results of the mirroring are
// not checked, so a failed one leaves list and disk out of step until the directory is listed again.
//
// Times are whole seconds since the epoch; 0 means "no time". Paths are full paths, names are bare file names.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "Flc.h"
#include "ImfSearchCondition.h"
#include "fmgr/FmgrRepository.h"

class FmgrErrorRepository;
class FmgrFreeRepository;
class ImfSegmentCloseInterface;
class RecoveryObserver;
struct TimeSearchChart;

namespace fmgr {
class FileChoice;
class PathOrder;
class RecordList;
}  // namespace fmgr

class FMGR_EXPORT FmgrDataRepository : public FmgrRepository {
 public:
  // For an existing directory `name` below `parent`. A missing pool or a name without "_" is logged and leaves
  // an object with index -1 in list mode, whose list and, unless only the name was wrong, path are empty; its
  // owner must not use it.
  FmgrDataRepository(std::string parent, std::string name, FmgrFreeRepository* freeRepository,
                     FmgrErrorRepository* errorRepository, unsigned useCache);
  // For a new directory; nothing is made on disk before Make(). The pools are not checked.
  FmgrDataRepository(std::string parent, int index, FmgrFreeRepository* freeRepository,
                     FmgrErrorRepository* errorRepository, unsigned useCache);
  // Leaves the disk, the pools, the observer and the segment-close interface alone.
  ~FmgrDataRepository() override;

  // --- Lifecycle ---

  // Makes the directory. 1 made; 0 with a line logged when it exists or can't be made.
  int Make();
  // Unregisters the directory from the driver and deletes it with all that is in it. 1 done; 0 with a line
  // logged when it still holds record files. A count that fails does not stop the removal, and neither is the
  // deletion itself checked.
  unsigned Remove();
  // Reads the record files' names from the directory into the list; repairs every unfinished one when an
  // observer is set. 1 done, also for none; 0 with a line logged. Precondition with an observer: the list is
  // empty. An unfinished file that can't be repaired leaves as the newest of the list, so a driver that knows
  // the later files already would give up one of those (CheckNewestFileFixup is for such a driver).
  int RecordFileListUp();
  // Number of record files; -1 when the driver fails.
  int GetFileCount() const override;
  // 1 when there is no record file; a driver that fails counts as not empty.
  unsigned IsEmpty() const;
  // Bytes of the oldest record file, which stands for all; 0 when there is none.
  int GetFileSize() const;
  std::string SearchDbPath() const;
  int Index() const { return mIndex; }
  // The directory, with a slash at its end.
  const std::string& Path() const { return mPath; }
  // 1 when the path is a regular file, else 0.
  unsigned IsExistFile(const char* path) const;

  // --- Names (no disk access; RecordFileName.h has the rules) ---

  unsigned IsValidFileName(std::string name) override;
  static int FileNameToStartTimeSec(const std::string& name);
  static int FileNameToEndTimeSec(const std::string& name);
  static unsigned FileNameToChannelMask(const std::string& name);
  bool IsCompletedFile(const std::string& name) const;
  static void FlcFileInfoToFileName(std::string& out, flc_file_info_param_t info);
  std::string MakeRepositoryName(int index) const;
  static int PathToRepositoryId(const std::string& path);
  // The last component of the disk's directory; empty with a line logged when that holds no "/".
  std::string GetDiskName() const;
  // Index -1: this directory's path and the name. Else the name in data directory `index` of the disk at
  // LINKROOT/disk/diskName, or of this disk when `diskName` is null.
  std::string FileNameToPath(const std::string& name, int index, const char* diskName) const;
  // The same, behind what `out` holds.
  FMGR_INTERNAL void AppendPath(std::string& out, std::string_view name, int index, const char* diskName) const;

  // --- Record files in and out. `mode` 1 tells the recovery observer before the file leaves. ---

  // Renames the first free file into this directory under the name of a file in progress. 1 and its path; 0
  // when the pool is empty, and nothing is changed. The rename is not checked. Precondition: no record file of
  // this directory started in the same second; that file would be replaced.
  int MakeRecordFile(timeval& time, std::string& newPath);
  // Gives a file back to the free pool, found by its name or else by its start time. 1 done; 0 with a line
  // logged, the file stays. The list of record files is not changed.
  unsigned RemoveRecordFile(const std::string& name, int mode);
  // Gives the oldest record file back to the free pool. 1 done; 0 with a line logged, the file and its entry in
  // the list stay. The observer is told.
  unsigned RemoveOldestRecordFile();
  // The same when the oldest file started before `limit`; 1 also when it did not and so stays. The entry leaves
  // the list first, and so also when the file can't be moved.
  // List mode removes it whatever its start: deliberate, see there.
  unsigned RemoveTimeOverRecordFile(long limit);
  // Gives the newest record file back. 0 without a line when there is none.
  unsigned RemoveLatestRecordFile(int mode);
  // Quarantines a file. 1 done; 0 with a line logged (none when the list is empty), the file stays. Drops the
  // newest entry of the list, whichever file was moved: it is meant for the file being recorded.
  unsigned MoveRecordFileToErrorRepository(std::string path, int mode);
  unsigned MoveLatestRecordFileToErrorRepository(int mode);
  // Completes the record file at `path`: renames it to its start time, `endTime` and `mask` in this directory.
  // Always 1; `newPath` is the completed path. The rename is not checked.
  int RenameRecordFile(const std::string& path, int endTime, unsigned mask, std::string& newPath);

  // --- Questions ---

  // Names. Without any file, empty in list mode and the name of a file in progress of start 0 in cache mode:
  // ask IsEmpty first.
  std::string GetOldestFile() const;
  std::string GetNewestFile() const;
  // Start of the oldest file, -1 when there is none.
  int GetStartTimeSec() const;
  // End of the recorded data, 0 when unknown. Opens the newest file when it is still in progress.
  int GetEndTimeSec() const;
  // False without any file, and the outputs are left alone.
  bool GetTimeRange(int& start, int& end) const;
  // Whether the oldest file ended at or before `limit`; false when either is 0.
  bool IsExistTimeOverFile(long limit) const;
  // Full paths; false (and the output left alone) when there is none.
  bool GetFirstFilePath(std::string& path) const;
  bool GetLastFilePath(std::string& path) const;
  // The recording after that at `path`, in cache mode over all directories and disks. The path of a file that
  // was in progress when the caller got it yields the same recording under its present name.
  bool GetNextFilePath(const std::string& path, std::string& next) const;
  bool GetPrevFilePath(const std::string& path, std::string& prev) const;
  // The file for a time. mode >= 1: the one that covers it, else the next; <= 0: the last that started by then.
  // Result: its end, 0 for none; `path` may have been written all the same.
  int GetFilePath(int time, std::string& path, int mode) const;
  // The same for one directory of several: `path` may be left alone for a file that isn't chosen.
  FMGR_INTERNAL int GetFilePath(int time, std::string& path, int mode, const fmgr::FileChoice& choice) const;
  // Full path of the file whose name begins with the start time; the last in name order when several do.
  bool FindFileNameByStartTime(int startTime, std::string& path) const;
  // Adds the paths of completed files that overlap the interval to `paths`. Result: how many were added. Cache
  // mode appends in order of end time; list mode inserts by start time.
  int CollectFileList(std::list<std::string>& paths, const ImfSearchCondition& condition) const;
  // The same for one directory of several, whose order goes from one to the next.
  FMGR_INTERNAL int CollectFileList(fmgr::PathOrder& paths, const ImfSearchCondition& condition) const;
  // Adds this directory's recordings to the chart, or widens its hints when it lies wholly outside the
  // interval. True when the search database was read.
  bool CollectSearchData(TimeSearchChart* chart) const;

  // --- Recovery after a power loss (DataRepositoryRecovery.cpp) ---

  // Repairs the newest record file when it is unfinished and an observer is set.
  void CheckNewestFileFixup();
  // True only when the file was repaired and renamed. `name` is the newest file: a file that turns out unusable
  // goes back to the free pool, and one that the device can't read is given up, as the newest and not by name.
  bool FixupRecordFile(const std::string& name);
  // Has the search database rebuilt when it is empty or marked damaged. Not for directories with fewer than two
  // files.
  void CheckDbFixup();

  // --- Files moved in by others (DataRepositoryWatch.cpp). Nobody in the library starts this watch. ---

  void InitWatchDirectory(std::string& path);
  void DeInitWatchDirectory();
  // Handles what has arrived since the last call; never blocks.
  void WatchDirectory();

  // Set by the owner right after construction; borrowed.
  RecoveryObserver* mRecoveryObserver = nullptr;
  ImfSegmentCloseInterface* mSegmentClose = nullptr;

 private:
  int mIndex = -1;
  std::string mPath;       // disk directory, "/", directory name, "/"
  std::string mGroupPath;  // disk directory, without a slash at its end

 public:
  // The directory that holds "disk/NAME" for every disk; set by the owner.
  std::string mLinkRoot;

 private:
  bool CanRemove(int line) const;
  void NotifyRemoved(const std::string& path) const;
  unsigned Quarantine(std::string path, int mode, int missingPoolLine, int pushFailedLine);

  FmgrFreeRepository* mFreeRepository = nullptr;
  FmgrErrorRepository* mErrorRepository = nullptr;
  std::unique_ptr<fmgr::RecordList> mRecords;  // before the buffer: what every question reads lies together
  int mInotifyFd = -1;
  int mWatchFd = -1;
  alignas(8) char mEventBuffer[32768];
  unsigned mUseCache = 0;
};
