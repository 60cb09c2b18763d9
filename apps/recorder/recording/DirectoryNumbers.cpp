#include "apps/recorder/recording/DirectoryNumbers.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr int kLargestNumber = 99999999;  // eight digits

std::string DirectoryName(int number) {
  char name[32];
  std::snprintf(name, sizeof name, "data_%08d", number);
  return name;
}

uint32_t OldestStart(const std::string& directory) {
  uint32_t oldest = 0;
  for (const std::string& name : ListDirectory(directory)) {
    RecordName parsed{};
    if (ParseRecordName(name, &parsed) && (oldest == 0 || parsed.startTime < oldest)) oldest = parsed.startTime;
  }
  return oldest;
}

bool IsRealDirectory(const std::string& path) {
  struct stat info = {};
  return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// By which directories of different disks are compared.
std::vector<uint32_t> KeysOf(const DirectoryList& directories, int64_t now) {
  std::vector<uint32_t> keys(directories.size());
  for (size_t i = directories.size(); i > 0; --i) {
    const uint32_t start = directories[i - 1].start;
    keys[i - 1] = start;
    if (i < directories.size() && keys[i] != 0 && (start == 0 || start > now)) {
      keys[i - 1] = start == 0 ? keys[i] : std::min(start, keys[i]);
    }
  }
  return keys;
}

}  // namespace

DirectoryList ListNumberedDirectories(const std::string& disk) {
  DirectoryList directories;
  for (const std::string& name : ListDirectory(disk)) {
    NumberedDirectory directory;
    directory.number = ParseDataDirectoryName(name);
    directory.name = name;
    const std::string path = disk + "/" + name;
    if (directory.number < 0 || directory.number > kLargestNumber || !IsRealDirectory(path)) continue;
    directory.start = OldestStart(path);
    directories.push_back(directory);
  }
  // Of two with one number the file manager takes the one that is called as it calls them.
  const auto before = [](const NumberedDirectory& a, const NumberedDirectory& b) {
    const auto isOdd = [](const NumberedDirectory& each) { return each.name != DirectoryName(each.number); };
    return a.number != b.number ? a.number < b.number : isOdd(a) < isOdd(b);
  };
  std::sort(directories.begin(), directories.end(), before);
  const auto isSame = [](const NumberedDirectory& a, const NumberedDirectory& b) {
    return a.number == b.number;
  };
  directories.erase(std::unique(directories.begin(), directories.end(), isSame), directories.end());
  return directories;
}

std::vector<Renumbering> PlanNumbers(const std::vector<DirectoryList>& disks, int64_t now) {
  int64_t largest = 0;
  std::vector<std::vector<uint32_t>> keys;
  for (const DirectoryList& directories : disks) {
    keys.push_back(KeysOf(directories, now));
    if (!directories.empty()) largest = std::max<int64_t>(largest, directories.back().number);
  }

  // Merged by time, and each disk's own in the order in which they are.
  std::vector<Renumbering> plan;
  std::vector<size_t> next(disks.size(), 0);
  int last = -1;
  for (;;) {
    size_t oldest = disks.size();
    for (size_t i = 0; i < disks.size(); ++i) {
      while (next[i] < disks[i].size() && disks[i][next[i]].start == 0) ++next[i];
      if (next[i] == disks[i].size()) continue;
      if (oldest == disks.size() || keys[i][next[i]] < keys[oldest][next[oldest]]) oldest = i;
    }
    if (oldest == disks.size()) break;
    const NumberedDirectory& directory = disks[oldest][next[oldest]++];
    // From the first one out of order on, all of them get new numbers.
    if (directory.number <= last || !plan.empty()) plan.push_back({oldest, directory, 0});
    last = directory.number;
  }
  if (largest + static_cast<int64_t>(plan.size()) > kLargestNumber) return {};
  for (Renumbering& each : plan) each.number = static_cast<int>(++largest);
  // The last one first: it leaves its disk's others in order behind it.
  std::reverse(plan.begin(), plan.end());
  return plan;
}

void Renumber(const std::vector<Disk>& disks, const std::vector<Renumbering>& plan) {
  std::set<size_t> failed;
  std::set<size_t> changed;
  for (const Renumbering& each : plan) {
    if (failed.count(each.disk) != 0) continue;
    const std::string& disk = disks[each.disk].path;
    const std::string from = disk + "/" + each.from.name;
    const std::string to = disk + "/" + DirectoryName(each.number);
    if (!RenameToNew(from, to)) {
      Complain("cannot renumber %s as %s: %s; its recordings may be recycled before older ones", from.c_str(),
               NameOf(to).c_str(), std::strerror(errno));
      failed.insert(each.disk);
      continue;
    }
    Print("renumbered %s as %s: it was recorded after others\n", from.c_str(), NameOf(to).c_str());
    changed.insert(each.disk);
  }
  for (const size_t disk : changed) SyncDirectory(disks[disk].path);
}

}  // namespace recorder
