#include "fmgr/FmgrFreeRepository.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "fmgr/FileListing.h"
#include "fmgr/FmgrPreAllocRepository.h"
#include "fmgr/Log.h"
#include "fmgr/StepReport.h"

namespace {

constexpr char kUnit[] = "FmgrFreeRepository";

// rename(2) that never replaces anything: 0, or -1 with errno, EEXIST when the target's name is taken.
int RenameToNewName(const char* source, const char* target) {
  if (renameat2(AT_FDCWD, source, AT_FDCWD, target, RENAME_NOREPLACE) == 0) return 0;
  // Some file systems and older kernels don't know the flag; looking first is the next best.
  if (errno != EINVAL && errno != ENOSYS) return -1;
  struct stat status;
  if (lstat(target, &status) == 0) {
    errno = EEXIST;
    return -1;
  }
  return errno == ENOENT ? std::rename(source, target) : -1;
}

// The number whose pool name this is; -1 for a name that a pool doesn't give.
int NumberOf(const std::string& name) {
  errno = 0;
  const long number = std::strtol(name.c_str(), nullptr, 10);
  if (errno != 0 || number < 0 || number > INT_MAX) return -1;
  return FmgrRepository::MakeFileName(static_cast<int>(number)) == name ? static_cast<int>(number) : -1;
}

}  // namespace

struct FmgrFreeRepository::Pool {
  std::string path;  // with a slash at its end
  // No pool name in the list has a number above this one, as long as the list is what it was.
  int highest = -1;
  // By what it is known again: the number of entries, the first and the last one.
  size_t count = 0;
  std::string first;
  std::string last;
};

static_assert(sizeof(FmgrFreeRepository) == sizeof(FmgrRepository) + sizeof(std::string));

FmgrFreeRepository::FmgrFreeRepository(std::string mount) : mPool(std::make_unique<Pool>()) {
  mPool->path = mount + "/imf_free/";
  if (!ListUp()) fmgr::LogError(kUnit, 21, "free repo list-up failure!");
}

FmgrFreeRepository::~FmgrFreeRepository() = default;

int FmgrFreeRepository::ListUp() {
  std::vector<std::string> paths;
  const int error = fmgr::Expand(fmgr::RecordFilePattern(mPool->path), paths);
  if (error != 0) {
    fmgr::LogError(kUnit, 41, "glob failure! (%d)\n", error);
    return 0;
  }
  for (const std::string& path : paths) files.push_back(PathToFileName(path));
  NoteList(true);
  return 1;
}

void FmgrFreeRepository::NoteList(bool isNew) {
  if (isNew || files.empty()) mPool->highest = -1;
  if (isNew) {
    for (const std::string& name : files) mPool->highest = std::max(mPool->highest, NumberOf(name));
  }
  mPool->count = files.size();
  mPool->first = files.empty() ? "" : files.front();
  mPool->last = files.empty() ? "" : files.back();
}

bool FmgrFreeRepository::IsListAsNoted() const {
  if (files.size() != mPool->count) return false;
  return files.empty() || (files.front() == mPool->first && files.back() == mPool->last);
}

int FmgrFreeRepository::GetFileCount() const { return static_cast<int>(files.size()); }

int FmgrFreeRepository::GetLastFreeFileIndex() {
  return files.empty() ? 0 : static_cast<int>(std::strtol(files.back().c_str(), nullptr, 10));
}

std::string FmgrFreeRepository::FileNameToPath(const std::string& name) { return mPool->path + name; }

int FmgrFreeRepository::GetFileSize() const {
  return files.empty() ? 0 : FmgrRepository::GetFileSize(mPool->path + files.front());
}

std::string FmgrFreeRepository::Pop() {
  const bool isNoted = IsListAsNoted();
  const std::string name = files.front();
  files.pop_front();
  if (isNoted) NoteList(false);
  return mPool->path + name;
}

int FmgrFreeRepository::Push(std::string& source) {
  const int index = GetLastFreeFileIndex();
  if (index < 0) {
    fmgr::LogError(kUnit, 79, "Can't get last file index!\n");
    return 0;
  }
  // An empty pool starts at 1 although Make numbers from 0: deliberate, recorders in the field have such pools.
  // Taken numbers are passed over, since renaming onto a pool file would lose it: those in the list, which come
  // up where a foreign name stands at the pool's end, and those on the disk alone. The list loses a name when a
  // file that was popped could not be moved out.
  std::unordered_set<int> listed;
  if (!IsListAsNoted()) NoteList(true);
  int next = index;
  for (;;) {
    next = next == INT_MAX ? 1 : next + 1;
    // As a rule the last entry has the highest number, and the list needn't be looked through.
    if (next <= mPool->highest) {
      if (listed.empty()) {
        for (const std::string& name : files) listed.insert(NumberOf(name));
      }
      if (listed.count(next) != 0) continue;
    }
    const std::string name = MakeFileName(next);
    const std::string target = FileNameToPath(name);
    if (RenameToNewName(source.c_str(), target.c_str()) == 0) {
      files.push_back(name);
      mPool->highest = std::max(mPool->highest, next);
      NoteList(false);
      return 1;
    }
    if (errno == EEXIST) continue;
    fmgr::LogDebug("Can't move from '%s' to '%s'. (%s)\n", source.c_str(), target.c_str(),
                   std::strerror(errno));
    return 0;
  }
}

int FmgrFreeRepository::Make(FmgrPreAllocRepository& prealloc, ProgressIndicator* indicator) {
  if (IsExistDir(mPool->path)) {
    fmgr::LogError(kUnit, 103, "Can't create free record file repository! (%s), already exist\n",
                   mPool->path.c_str());
    return 0;
  }
  if (!CreateDir(mPool->path)) {
    fmgr::LogError(kUnit, 109, "Can't create free record file repository! (%s)\n", mPool->path.c_str());
    return 0;
  }
  // A copy: the indicator is the application's, and may change the list while it draws.
  const std::list<std::string> entries = prealloc.files;
  if (indicator != nullptr) {
    indicator->BeginStage(static_cast<int>(entries.size()), PROGRESS_STAGE_FILL_FREE_POOL);
  }
  int step = 0;
  for (const std::string& entry : entries) {
    // A hard link, so that a build cut off in the middle still has every file under its first name.
    if (link(entry.c_str(), FileNameToPath(MakeFileName(step)).c_str()) != 0) {
      // Deliberately not reported: the pool has a gap, and the application verifies the pool after a build.
    }
    fmgr::ReportStep(indicator, step);
    ++step;
  }
  return 1;
}
