// recorder status: what is on each disk, in numbers. Looks only.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/RootLock.h"
#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Timeline.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace recorder {

namespace {

struct DiskStatus {
  std::string name;
  std::string path;
  int free = 0;
  int used = 0;
  int quarantined = 0;
  uint64_t fileSize = 0;
  uint64_t quarantinedBytes = 0;
  int first = 0;  // seconds since the epoch, 0: nothing recorded
  int last = 0;
  bool writing = false;
};

// What all disks together have left.
struct Capacity {
  int remaining = 0;                // MiB in free files
  std::optional<double> hoursLeft;  // until they are used up; unknown when nothing was recorded
};

constexpr int64_t kRateWindow = 6 * 3600;  // seconds

// The present rate is that at which the latest hours of recording used up files: a file counts in full, however
// much of it is in use.
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

DiskStatus Examine(const Disk& disk, FmgrRepositoryGroup& group) {
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
  return status;
}

void PrintJson(const DiskStatus& status, const Capacity& capacity) {
  nlohmann::ordered_json line;
  line["disk"] = status.name;
  line["path"] = status.path;
  line["free"] = status.free;
  line["used"] = status.used;
  line["quarantined"] = status.quarantined;
  line["fileBytes"] = status.fileSize;
  line["freeBytes"] = status.fileSize * static_cast<uint64_t>(status.free);
  line["usedBytes"] = status.fileSize * static_cast<uint64_t>(status.used);
  line["quarantinedBytes"] = status.quarantinedBytes;
  line["first"] = status.first != 0 ? nlohmann::ordered_json(FormatTime(status.first)) : nullptr;
  line["last"] = status.last != 0 ? nlohmann::ordered_json(FormatTime(status.last)) : nullptr;
  line["writing"] = status.writing;
  line["allDisks"]["remainingMiB"] = capacity.remaining;
  line["allDisks"]["hoursLeft"] = nullptr;
  if (capacity.hoursLeft) line["allDisks"]["hoursLeft"] = *capacity.hoursLeft;
  std::printf("%s\n", line.dump().c_str());
}

void PrintText(const DiskStatus& status) {
  const auto line = [](const char* what, int count, uint64_t bytes) {
    std::printf("  %-12s %8d files  %10s\n", what, count, FormatSize(bytes).c_str());
  };
  std::printf("disk %s at %s%s\n", status.name.c_str(), status.path.c_str(),
              status.writing ? ", being recorded to" : "");
  line("free", status.free, status.fileSize * static_cast<uint64_t>(status.free));
  line("used", status.used, status.fileSize * static_cast<uint64_t>(status.used));
  line("quarantined", status.quarantined, status.quarantinedBytes);
  if (status.first == 0) {
    std::printf("  nothing recorded\n");
  } else {
    std::printf("  recorded     %s to %s\n", FormatTime(status.first).c_str(), FormatTime(status.last).c_str());
  }
}

void PrintText(const Capacity& capacity) {
  std::printf("remaining %d MiB", capacity.remaining);
  if (capacity.hoursLeft) std::printf(", %.1f hours at the present rate", *capacity.hoursLeft);
  std::printf("\n");
}

// The disk of the newest file in progress. Between two segments there is none, and the disk of the newest data
// directory is the one that the recorder goes on with, unless it has given that disk up.
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

int Status(std::string root, bool json) {
  Disks disks;
  if (Refusal refusal = OpenToLook(&root, &disks)) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const std::optional<std::string> holder = HolderOfRoot(root);
  const bool recording = holder && holder->rfind("recorder record ", 0) == 0;
  if (holder && !json) std::printf("in use by %s\n", holder->c_str());
  const Capacity capacity = MeasureCapacity(disks);
  for (const Disk& disk : disks.All()) {
    FmgrRepositoryGroup* group = disks.Group(disk);
    if (group == nullptr) continue;
    DiskStatus status = Examine(disk, *group);
    status.writing = recording && group == BeingWritten(disks);
    json ? PrintJson(status, capacity) : PrintText(status);
  }
  if (!json) PrintText(capacity);
  return kDone;
}

}  // namespace

void AddStatusCommand(CLI::App& app, Context& context) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("status", "Show what is on each disk, also while recording goes on");
  command->add_flag("--json", *json, "One JSON object a disk and line");
  command->callback(
      [json, &context] { context.run = [json, &context] { return Status(context.root, *json); }; });
}

}  // namespace recorder
