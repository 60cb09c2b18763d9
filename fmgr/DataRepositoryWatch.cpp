// FmgrDataRepository: record files that others move into the directory are added to the driver's list.
#include <sys/inotify.h>

#include "Flc.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/Inotify.h"
#include "fmgr/Log.h"
#include "fmgr/OneCall.h"

void FmgrDataRepository::InitWatchDirectory(std::string& path) {
  if (!fmgr::StartWatch(path, IN_MOVED_TO, mInotifyFd, mWatchFd)) {
    fmgr::LogError("FmgrDataRepository", 886, "Inotify init failure!! path(%s)\n", path.c_str());
  }
}

void FmgrDataRepository::DeInitWatchDirectory() { fmgr::StopWatch(mInotifyFd, mWatchFd); }

void FmgrDataRepository::WatchDirectory() {
  if (mInotifyFd < 0 || mWatchFd < 0) {
    fmgr::LogDebug("Watch directory is not initialized! repo(%s)\n", mPath.c_str());
    return;
  }
  fmgr::ReadEvents(mInotifyFd, mEventBuffer, sizeof mEventBuffer,
                   [this](uint32_t mask, const std::string& name) {
                     if ((mask & IN_MOVED_TO) == 0) return;
                     if ((mask & IN_ISDIR) != 0) {
                       fmgr::LogDebug("The directory %s was moved.\n", name.c_str());
                       return;
                     }
                     fmgr::LogDebug("The file %s was created.\n", name.c_str());
                     // To the driver in both modes: whoever watches a directory is asked through the driver.
                     // The name is taken as it stands; the driver refuses one without a start time.
                     const std::string disk = GetDiskName();
                     const uint32_t start = static_cast<uint32_t>(FileNameToStartTimeSec(name));
                     if (IsCompletedFile(name)) FlcRemoveFile(disk.c_str(), mIndex, start);
                     FlcAddFile(disk.c_str(), mIndex, start, static_cast<uint32_t>(FileNameToEndTimeSec(name)),
                                FileNameToChannelMask(name));
                     fmgr::OneCall::Forget();
                   });
}
