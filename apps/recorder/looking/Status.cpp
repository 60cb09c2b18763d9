#include "apps/recorder/looking/Status.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Timeline.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace recorder {

namespace {

constexpr int64_t kRateWindow = 6 * 3600;  // seconds
constexpr int kLooks = 3;                  // what is missing as often is not just on its way

// Recordings that can't be recycled are passed over when it is their turn, so they are the oldest ones.
void NoteImmovable(const FmgrDataRepository& repository, DiskStatus* status) {
  std::string path;
  std::string next;
  bool isThere = repository.GetFirstFilePath(path);
  while (isThere && DirectoryOf(path) == repository.Path() && IsImmutable(path)) {
    status->odd.push_back({path, "is immutable"});
    isThere = repository.GetNextFilePath(path, next) && next != path;
    path = next;
  }
}

void NoteOdd(const Disk& disk, const Inspection& found, const FmgrRepositoryGroup& group, DiskStatus* status) {
  for (const auto* list : {&found.odd, &found.closed, &found.fixed}) {
    status->odd.insert(status->odd.end(), list->begin(), list->end());
  }
  for (const FmgrDataRepository* repository : group.mDataRepositories) NoteImmovable(*repository, status);
  status->setAside = found.setAside + static_cast<int64_t>(status->odd.size());
  status->missing = found.Missing();
  for (int look = 1; look < kLooks && status->missing > 0; ++look) {
    status->missing = std::min(status->missing, Inspect(disk.path, std::time(nullptr)).Missing());
  }
}

}  // namespace

Capacity MeasureCapacity(const Disks& disks) {
  Capacity capacity;
  int total = 0;
  capacity.remaining = disks.Manager()->GetRemainSize(total);

  const Recordings recordings(disks);
  const std::optional<Recording> latest = recordings.LastBefore(kLatestTime * kMicros, kAnyChannel);
  if (!latest) return capacity;
  std::map<std::string, int> fileSizes;  // bytes, by disk
  for (const Disk& disk : disks.All()) {
    if (const FmgrRepositoryGroup* group = disks.Group(disk)) fileSizes[disk.name] = group->GetFileSize();
  }
  double bytes = 0;
  std::vector<Span> spans;
  const Range window = {(latest->end - kRateWindow) * kMicros, latest->end * kMicros};
  for (const Recording& recording : recordings.Find(window, kAnyChannel)) {
    if (recording.state != Recording::State::kComplete) continue;
    bytes += fileSizes[recording.disk];
    spans.push_back({recording.start, recording.end, false});
  }
  double seconds = 0;
  for (const Span& span : Merge(spans, 0, kLatestTime)) seconds += static_cast<double>(span.end - span.begin);
  if (bytes > 0) capacity.hoursLeft = capacity.remaining * static_cast<double>(kMiB) / (bytes / seconds) / 3600;
  return capacity;
}

std::vector<DiskState> UnusedDisks(const Disks& disks, bool recording) {
  std::vector<DiskState> unused;
  if (recording) unused = ReadState(disks.Root()).disks;
  for (const Disk& disk : disks.Missing()) {
    const bool known = std::any_of(unused.begin(), unused.end(),
                                   [&disk](const DiskState& each) { return each.disk.name == disk.name; });
    if (!known) unused.push_back({disk, DiskState::kMissing, WhyMissing(disks.Root(), disk), 0});
  }
  return unused;
}

DiskStatus Examine(const Disks& disks, const Disk& disk, FmgrRepositoryGroup& group) {
  DiskStatus status;
  status.name = disk.name;
  status.path = disk.path;
  status.free = group.GetFreeFileCount();
  status.used = group.GetRecordFileCount();
  status.fileSize = static_cast<uint64_t>(group.GetFileSize());
  // The library's list leaves out files whose name was taken when they came ("...imf2"); they stay visible
  // here.
  for (const std::string& name : ListDirectory(disk.path + "/imf_error")) {
    struct stat st;
    if (name.find(".imf") == std::string::npos || lstat((disk.path + "/imf_error/" + name).c_str(), &st) != 0 ||
        !S_ISREG(st.st_mode)) {
      continue;
    }
    ++status.quarantined;
    status.quarantinedBytes += static_cast<uint64_t>(st.st_size);
  }
  group.GetTimeRange(status.first, status.last);
  if (const Inspection* found = disks.Vetted().Found(disk)) NoteOdd(disk, *found, group, &status);
  return status;
}

const FmgrRepositoryGroup* BeingWritten(const Disks& disks) {
  const FmgrRepositoryGroup* writing = disks.Manager()->CurrentRepositoryGroup();
  int newest = 0;
  for (const FmgrRepositoryGroup* group : disks.Manager()->mGroups) {
    if (group->mDataRepositories.empty()) continue;
    const FmgrDataRepository& last = *group->mDataRepositories.back();
    const std::string name = last.GetNewestFile();
    const int start = FmgrDataRepository::FileNameToStartTimeSec(name);
    if (last.IsCompletedFile(name) || start <= newest) continue;
    newest = start;
    writing = group;
  }
  return writing;
}

}  // namespace recorder
