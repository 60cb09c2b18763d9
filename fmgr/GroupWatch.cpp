// FmgrRepositoryGroup: data directories that other processes make or delete are taken in or dropped.
#include <sys/inotify.h>

#include "fmgr/FmgrRepositoryGroup.h"
#include "fmgr/Inotify.h"
#include "fmgr/Log.h"

void FmgrRepositoryGroup::InitWatchDirectory(std::string& path) {
  if (!fmgr::StartWatch(path, IN_CREATE | IN_DELETE, mInotifyFd, mWatchFd)) {
    fmgr::LogError("FmgrRepositoryGroup", 540, "Inotify init failure!! path(%s)\n", path.c_str());
  }
}

void FmgrRepositoryGroup::DeInitWatchDirectory() { fmgr::StopWatch(mInotifyFd, mWatchFd); }

void FmgrRepositoryGroup::WatchDirectory() {
  if (mInotifyFd < 0 || mWatchFd < 0) {
    fmgr::LogDebug("Watch directory is not initialized! group(%s)\n", mPath.c_str());
    return;
  }
  fmgr::ReadEvents(
      mInotifyFd, mEventBuffer, sizeof mEventBuffer, [this](uint32_t mask, const std::string& name) {
        if ((mask & IN_ISDIR) == 0 || (mask & (IN_CREATE | IN_DELETE)) == 0) return;
        const bool created = (mask & IN_CREATE) != 0;
        fmgr::LogDebug("The directory %s was %s.\n", name.c_str(), created ? "created" : "deleted");
        const int index = FmgrDataRepository::PathToRepositoryId(name);
        if (index < 0) return;
        if (created) {
          // The group's own new directories arrive here too; they are in the list already and refused by their
          // index.
          MakeDataRepository(index, 0);
        } else {
          RemoveRepositoryInstance(index);
        }
      });
}
