// FmgrDataRepository: recovery of the last record file and of the search database after a power loss.
//
//   1. CheckNewestFileFixup: an unfinished newest file is opened for repair, which finds its real end and its
//      channels and writes them into its header (durable once the reader returns).
//   2. It is renamed to its completed name, or given back to the pool when nothing usable is in it, or given up
//      when the device can't read it. Cut off before the rename, the next start does the same again.
//   3. CheckDbFixup: a search database that is empty or marked is rebuilt from the names by the tool; the marks
//      go last, so a rebuild that is cut off is repeated.
//
// Nothing here stops the start-up: whatever fails, the directory goes on with its other files.
#include <unistd.h>

#include <optional>

#include "ImfFile.h"
#include "RecoveryObserver.h"
#include "SystemHelper.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/Log.h"
#include "fmgr/ShellPath.h"

namespace {

// Tells the observer, when there is one, that recovery goes on for as long as the object lives.
class RecoveryStage {
 public:
  explicit RecoveryStage(RecoveryObserver* observer) : mObserver(observer) {
    if (mObserver != nullptr) mObserver->NotifyStage(RECOVERY_STAGE, 1);
  }
  ~RecoveryStage() {
    if (mObserver != nullptr) mObserver->NotifyStage(RECOVERY_STAGE, 0);
  }
  RecoveryStage(const RecoveryStage&) = delete;
  RecoveryStage& operator=(const RecoveryStage&) = delete;

 private:
  RecoveryObserver* mObserver;
};

}  // namespace

// Without an observer nothing is repaired, deliberately: only the process that records has one, and a second
// process that repaired the file being written would rename it under the recorder's hands.
void FmgrDataRepository::CheckNewestFileFixup() {
  const std::string name = GetNewestFile();
  if (!IsCompletedFile(name) && mRecoveryObserver != nullptr) FixupRecordFile(name);
}

bool FmgrDataRepository::FixupRecordFile(const std::string& name) {
  if (GetFileCount() < 1) return false;
  std::optional<ImfFile> file;  // closed after the observer has heard of the end of the stage
  const RecoveryStage stage(mRecoveryObserver);
  const std::string path = FileNameToPath(name, -1, nullptr);
  fmgr::LogDebug("Last record file recovery started '%s' \n", path.c_str());

  imf_error_code_e error = IMF_ERROR_NONE;
  file.emplace(error, path, IMF_OPEN_REPAIR, "", "", 0, mSegmentClose);
  switch (error) {
    case IMF_ERROR_REPAIRED: {
      const unsigned mask = file->GetStreamCountSummary().GetVideoChannelMask(0);
      std::string newPath;
      RenameRecordFile(path, file->GetEndTime(), mask, newPath);
      fmgr::LogDebug("Last Record File Fixed! '%s'\n", newPath.c_str());
      if (mRecoveryObserver != nullptr) mRecoveryObserver->NotifyFileFixed(*file, newPath, mask);
      return true;
    }
    case IMF_ERROR_IO: {
      fmgr::LogDebug(
          "File IO error occured! Can't recovery last record file! move '%s' file to error repository\n",
          path.c_str());
      // Unlinked before it is "moved", deliberately: a file that the device can't read blocks whoever touches
      // it next, so only its entry is kept in the quarantine's list.
      const std::string newest = mPath + GetNewestFile();
      if (IsExistFile(newest.c_str())) unlink(newest.c_str());
      MoveLatestRecordFileToErrorRepository(0);
      return false;
    }
    case IMF_ERROR_UNREPAIRABLE:
      fmgr::LogDebug("Can't recovery last record file! remove '%s' file\n", path.c_str());
      RemoveLatestRecordFile(0);
      return false;
    default:
      return false;
  }
}

void FmgrDataRepository::CheckDbFixup() {
  // A directory of one file is never checked: deliberate, its database is as good as new.
  if (GetFileCount() <= 1) return;
  const std::string database = SearchDbPath();
  const char* cause = "db size is 0";
  if (::GetFileSize(database.c_str()) != 0) {
    if (!IsExistFile((database + ".0.err").c_str())) return;
    cause = "error db founded";
  }
  const RecoveryStage stage(mRecoveryObserver);
  fmgr::LogDebug("search db recovery started '%s'. cause(%s)\n", mPath.c_str(), cause);
  // Neither result is checked, deliberately: a database that is still bad only costs search results.
  SystemFmt("/opt/app/filedb -f %s", fmgr::ShellPath(mPath).c_str());
  SystemFmt("rm -rf %s", (fmgr::ShellPath(database) + ".*.err").c_str());
}
