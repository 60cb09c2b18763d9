// FmgrFileManager: the questions of playback, search and menus, over all disks.
#include <cstdint>
#include <cstring>
#include <ctime>

#include "Flc.h"
#include "SearchDb.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "fmgr/Log.h"
#include "fmgr/OneCall.h"
#include "fmgr/PathOrder.h"
#include "fmgr/RecordList.h"
#include "fmgr/RepositoryOrder.h"

namespace {

constexpr int64_t kBytesPerDecimalMegabyte = 1000000;
constexpr int kMonthsPerYear = 12;
constexpr int kTmYearBase = 1900;

// Zero is no time. A start of -1 (an empty directory) wins, deliberately: menus show such a disk as not ready.
int TimeRangeOf(const std::list<FmgrRepositoryGroup*>& groups, int& start, int& end) {
  start = 0;
  end = 0;
  int earliest = 0;
  int latest = 0;
  const fmgr::OneCall call;
  const fmgr::RepositoryOrder order = fmgr::GatherByStart(groups);
  for (const fmgr::RepositoryStart& entry : order) {
    if (entry.start != 0 && (earliest == 0 || entry.start < earliest)) earliest = entry.start;
  }
  if (earliest == 0) return 0;
  for (auto entry = order.rbegin(); entry != order.rend(); ++entry) {
    const int candidate = entry->repository->GetEndTimeSec();
    if (candidate != 0 && (latest == 0 || candidate > latest)) latest = candidate;
  }
  if (latest == 0) return 0;
  start = earliest;
  end = latest;
  return 1;
}

// First second of a month in local time; `month` counts from 0. False for a year that no calendar has.
bool MonthStart(int64_t year, int month, std::tm& broken, int64_t& start) {
  const int64_t years = year - kTmYearBase;
  broken = {};
  broken.tm_year = static_cast<int>(years);
  if (broken.tm_year != years) return false;
  broken.tm_mon = month;
  broken.tm_mday = 1;
  broken.tm_isdst = -1;  // the zone's rules decide, so months follow both changes of the clock
  broken.tm_wday = -1;   // set by a success; -1 as the result could also be a time
  start = std::mktime(&broken);
  return broken.tm_wday != -1;
}

}  // namespace

int FmgrFileManager::GetFilePath(int time, std::string& path, int mode) {
  const fmgr::OneCall call;
  fmgr::FileChoice choice(mode);
  std::string candidate;
  for (const fmgr::RepositoryStart& entry : fmgr::GatherByStart(ActiveGroups())) {
    const int end = entry.repository->GetFilePath(time, candidate, mode, choice);
    if (end == 0 || !choice.Takes(end)) continue;
    path.swap(candidate);
    choice.Take(end);
  }
  return choice.HasAny() ? FMGR_DONE : FMGR_NO_DISK_OR_OWNER;
}

unsigned FmgrFileManager::GetNextFilePath(const std::string& path, std::string& next) {
  const fmgr::OneCall call;
  const FmgrDataRepository* owner = fmgr::FindFirstOwner(ActiveGroups(), path);
  return owner != nullptr && owner->GetNextFilePath(path, next) ? FMGR_DONE : FMGR_NO_DISK_OR_OWNER;
}

unsigned FmgrFileManager::GetPrevFilePath(const std::string& path, std::string& prev) {
  const fmgr::OneCall call;
  const FmgrDataRepository* owner = fmgr::FindLastOwner(ActiveGroups(), path);
  if (owner == nullptr) return FMGR_NO_DISK_OR_OWNER;
  if (owner->GetPrevFilePath(path, prev)) return FMGR_DONE;

  const fmgr::RepositoryOrder order = fmgr::GatherByStart(ActiveGroups());
  const FmgrDataRepository* before = nullptr;
  for (const fmgr::RepositoryStart& entry : order) {
    if (entry.repository == owner) break;
    before = entry.repository;
  }
  return before != nullptr && before->GetLastFilePath(prev) ? FMGR_DONE : FMGR_NO_DISK_OR_OWNER;
}

int FmgrFileManager::GetTimeRange(int& start, int& end) const {
  return TimeRangeOf(ActiveGroups(), start, end);
}

int FmgrFileManager::GetExternalTimeRange(int& start, int& end) const {
  return TimeRangeOf(mAltGroups, start, end);
}

int FmgrFileManager::CollectSearchData(TimeSearchChart* chart) const {
  const fmgr::OneCall call;
  chart->latestEndBefore = 0;
  chart->earliestStartAfter = 0;
  int collected = 0;
  for (const fmgr::RepositoryStart& entry : fmgr::GatherByStart(ActiveGroups())) {
    if (entry.repository->CollectSearchData(chart)) collected = 1;
  }
  return collected;
}

int FmgrFileManager::CollectFileList(std::list<std::string>& files, const ImfSearchCondition& condition) const {
  const fmgr::OneCall call;
  const fmgr::RepositoryOrder order = fmgr::GatherByStart(ActiveGroups());
  if (order.empty()) return FMGR_NO_DISK_OR_OWNER;
  fmgr::PathOrder paths(files);
  for (const fmgr::RepositoryStart& entry : order) entry.repository->CollectFileList(paths, condition);
  // Entries from before the call count too.
  return files.empty() ? FMGR_NO_DISK_OR_OWNER : FMGR_DONE;
}

int FmgrFileManager::CollectTimeRange(ipc_menu_disk_stream_t& menu) const {
  const GroupList& groups = ActiveGroups();
  if (groups.empty()) return 0;
  const fmgr::OneCall call;
  menu.kind = 2;
  for (ipc_menu_disk_entry_t& entry : menu.entries) {
    if (entry.inUse == 0) continue;
    const std::string diskPath(entry.diskPath, strnlen(entry.diskPath, sizeof entry.diskPath));
    const std::string diskName(entry.diskName, strnlen(entry.diskName, sizeof entry.diskName));
    for (const FmgrRepositoryGroup* group : groups) {
      if (group->Path() != diskPath) continue;
      int start = 0;
      int end = 0;
      if (!group->GetTimeRange(start, end)) start = end = 0;
      entry.startTime = start;
      entry.endTime = end;
      if (mAltMode == 0) entry.writing = mGroups.back()->mName.find(diskName) != std::string::npos ? 1 : 0;
      const int64_t size = static_cast<int64_t>(group->GetRecordFileCount()) * group->GetFileSize();
      entry.recordedSize = static_cast<int32_t>(size / kBytesPerDecimalMegabyte);
      fmgr::LogDebug("[%s] %s, %d - %d\n", diskName.c_str(), entry.writing == 1 ? "WRITE" : "IDLE ", start,
                     end);
    }
  }
  return 1;
}

unsigned FmgrFileManager::GetRecentlyMonthInfo(int year, int month, int& outYear, int& outMonth,
                                               int direction) const {
  const GroupList& groups = ActiveGroups();
  if (groups.empty() || month < 1 || month > kMonthsPerYear) return 0;
  const bool forward = direction >= 1;
  std::tm broken;
  int64_t boundary = 0;
  if (!(forward ? MonthStart(int64_t{year} + month / kMonthsPerYear, month % kMonthsPerYear, broken, boundary)
                : MonthStart(year, month - 1, broken, boundary))) {
    return 0;
  }
  if (!forward) --boundary;
  // No record file has such a time, and in a request it would stand for another one.
  if (boundary < 0 || boundary > UINT32_MAX) return 0;
  int64_t best = 0;
  for (const FmgrRepositoryGroup* group : groups) {
    const char* disk = group->mName.empty() ? nullptr : group->mName.c_str();
    for (const FmgrDataRepository* repository : group->mDataRepositories) {
      flc_file_info_param_t param = FlcFileParam(nullptr, repository->Index(), static_cast<uint32_t>(boundary),
                                                 0, FLC_ALL_CHANNELS, direction);
      if (FlcGetFileByTime(disk, &param) < 0) continue;
      const int64_t start = param.startTime;
      const int64_t end = param.endTime != 0 ? param.endTime : param.startTime;
      if (start <= boundary && boundary <= end) {
        outYear = broken.tm_year + kTmYearBase;
        outMonth = broken.tm_mon + 1;
        if (!forward) {
          outYear = month == 1 ? outYear - 1 : outYear;
          outMonth = month == 1 ? kMonthsPerYear : month - 1;
        }
        return 1;
      }
      if (forward) {
        if (start != 0 && (best == 0 || start < best)) best = start;
      } else if (end > best) {
        best = end;
      }
    }
  }
  if (best == 0) return 0;
  const time_t found = static_cast<time_t>(best);
  std::tm local{};
  localtime_r(&found, &local);
  outYear = local.tm_year + kTmYearBase;
  outMonth = local.tm_mon + 1;
  return 1;
}

int FmgrFileManager::GetAllDataRepositoryCount() const {
  int count = 0;
  for (const FmgrRepositoryGroup* group : ActiveGroups()) count += group->GetDataRepositoryCount();
  return count;
}

int FmgrFileManager::GetFreeFileCount() const {
  int count = 0;
  for (const FmgrRepositoryGroup* group : ActiveGroups()) count += group->GetFreeFileCount();
  return count;
}

int FmgrFileManager::GetFreeFileCount(std::string diskPath) const {
  for (const FmgrRepositoryGroup* group : ActiveGroups()) {
    if (group->Path() == diskPath) return group->GetFreeFileCount();
  }
  return 0;
}

int FmgrFileManager::GetTotalFileCount(std::string diskPath) const {
  int count = 0;
  const fmgr::OneCall call;
  for (const FmgrRepositoryGroup* group : ActiveGroups()) {
    if (group->Path() == diskPath) count += group->GetFreeFileCount() + group->GetRecordFileCount();
  }
  return count;
}
