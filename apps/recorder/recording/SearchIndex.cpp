#include "apps/recorder/recording/SearchIndex.h"

#include <unistd.h>

#include <cstdio>

#include "SystemHelper.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/check/RecordCheck.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr size_t kHandles = 2;

std::string DbPath(const std::string& directory) { return directory + "search.fdb"; }

bool ReadCompleted(const std::string& name, TimeSearchRecording* recording) {
  RecordName parsed{};
  if (!ParseRecordName(name, &parsed) || parsed.endTime == 0) return false;
  *recording = {static_cast<int32_t>(parsed.startTime), static_cast<int32_t>(parsed.endTime),
                parsed.channelMask};
  return true;
}

}  // namespace

SearchDb& SearchIndex::DbOf(const std::string& directory) {
  for (auto it = mOpen.begin(); it != mOpen.end(); ++it) {
    if (it->directory != directory) continue;
    mOpen.splice(mOpen.begin(), mOpen, it);
    return *mOpen.front().db;
  }
  while (mOpen.size() >= kHandles) mOpen.pop_back();
  mOpen.push_front({directory, std::make_unique<SearchDb>(directory, SEARCH_DB_WRITE)});
  return *mOpen.front().db;
}

void SearchIndex::Add(const std::string& path) {
  const std::string directory = DirectoryOf(path);
  TimeSearchRecording recording{};
  if (Exists(DbPath(directory))) {
    if (ReadCompleted(NameOf(path), &recording)) DbOf(directory).Add(recording);
    return;
  }
  SearchDb& db = DbOf(directory);
  for (const std::string& name : ListDirectory(directory)) {
    if (ReadCompleted(name, &recording)) db.Add(recording);
  }
}

void SearchIndex::AddRepaired(const std::string& path) {
  const std::string directory = DirectoryOf(path);
  if (!Exists(DbPath(directory))) {
    int files = 0;
    for (const std::string& name : ListDirectory(directory)) files += HasSuffix(name, ".imf") ? 1 : 0;
    if (files > 1) return;
  }
  Add(path);
}

void SearchIndex::Remove(const std::string& path, uint32_t startTime) {
  const std::string directory = DirectoryOf(path);
  if (!Exists(DbPath(directory))) return;
  DbOf(directory).Remove(static_cast<int32_t>(startTime));
}

void SearchIndex::Mend(const std::string& disk) {
  for (const std::string& name : ListDirectory(disk)) {
    if (ParseDataDirectoryName(name) < 0) continue;
    const std::string directory = disk + "/" + name + "/";
    std::vector<std::string> records;
    std::vector<std::string> others;
    for (const std::string& entry : ListDirectory(directory)) {
      if (HasSuffix(entry, ".imf")) records.push_back(entry);
      if (entry.rfind("search.fdb", 0) == 0) others.push_back(entry);
    }
    CheckSearchDb(directory, records, others, [&](Fault, const std::string& path, const std::string& what) {
      if (Rebuild(directory)) {
        std::printf("rebuilt search database %s: it %s\n", path.c_str(), what.c_str());
      } else {
        Complain("search database %s %s and could not be rebuilt", path.c_str(), what.c_str());
      }
    });
  }
}

// By the tool that the file manager uses as well. The marks go last, so that a rebuild that is cut off is done
// again.
bool SearchIndex::Rebuild(const std::string& directory) {
  if (SystemFmt("/opt/app/filedb -f %s", directory.c_str()) != 0) return false;
  for (const std::string& name : ListDirectory(directory)) {
    if (name.rfind("search.fdb.", 0) == 0 && HasSuffix(name, ".err")) unlink((directory + name).c_str());
  }
  return true;
}

}  // namespace recorder
