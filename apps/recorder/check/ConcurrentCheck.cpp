#include "apps/recorder/check/ConcurrentCheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "apps/recorder/base/Files.h"

namespace recorder {

namespace {

constexpr int kLooks = 4;  // what is seen as often while somebody records is not his moving of files
constexpr useconds_t kBetweenLooks = 200000;  // microseconds

// The file that a recorder is writing is the unfinished one that was written to last.
void DropBeingWritten(Reports* reports) {
  DiskReport* owner = nullptr;
  size_t position = 0;
  timespec newest = {};
  for (DiskReport& report : *reports) {
    for (size_t i = 0; i < report.findings.size(); ++i) {
      struct stat info = {};
      if (report.findings[i].fault != Fault::kUnfinished) continue;
      if (lstat(report.findings[i].path.c_str(), &info) != 0) continue;
      const timespec written = info.st_mtim;
      const bool isNewer =
          std::make_pair(written.tv_sec, written.tv_nsec) > std::make_pair(newest.tv_sec, newest.tv_nsec);
      if (!isNewer) continue;
      owner = &report;
      position = i;
      newest = written;
    }
  }
  if (owner == nullptr) return;
  owner->notes.push_back(owner->findings[position].path + " is being written");
  owner->findings.erase(owner->findings.begin() + static_cast<std::ptrdiff_t>(position));
}

void KeepCommon(const DiskReport& before, DiskReport* now) {
  std::set<std::pair<Fault, std::string>> known;
  for (const Finding& finding : before.findings) known.emplace(finding.fault, finding.path);
  const auto isNew = [&](const Finding& finding) { return known.count({finding.fault, finding.path}) == 0; };
  now->findings.erase(std::remove_if(now->findings.begin(), now->findings.end(), isNew), now->findings.end());
}

}  // namespace

Reports CheckAll(const std::vector<Disk>& disks) {
  Reports reports;
  for (const Disk& disk : disks) reports.push_back(CheckDisk(disk.path));
  return reports;
}

Reports CheckBeside(const std::string& root, const std::vector<Disk>& disks) {
  Reports before;
  for (int look = 1;; ++look) {
    Reports reports = CheckAll(disks);
    const std::optional<std::string> holder = HolderOf(root, disks);
    if (!holder && look == 1) return reports;
    const bool isPreparing = holder && holder->rfind("recorder prepare", 0) == 0;
    for (DiskReport& report : reports) {
      if (!isPreparing || !Exists(report.path + "/imf_prealloc")) continue;
      report.findings.clear();
      report.notes.push_back("is being prepared by " + *holder);
    }
    if (holder && holder->rfind("recorder record", 0) == 0) DropBeingWritten(&reports);
    for (size_t i = 0; i < before.size(); ++i) KeepCommon(before[i], &reports[i]);
    const bool isClean = std::all_of(reports.begin(), reports.end(),
                                     [](const DiskReport& report) { return report.findings.empty(); });
    if (isClean || look == kLooks) return reports;
    usleep(kBetweenLooks);
    before = std::move(reports);
  }
}

}  // namespace recorder
