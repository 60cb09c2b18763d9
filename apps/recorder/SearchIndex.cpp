#include "SearchIndex.h"

#include "Files.h"
#include "platform/host/RecordName.h"

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

}  // namespace recorder
