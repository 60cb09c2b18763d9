#include "apps/recorder/recording/SearchIndex.h"

#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "SystemHelper.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/disks/SetAside.h"
#include "platform/host/imf/ImfCoverage.h"
#include "platform/host/imf/RecordName.h"
#include "platform/host/searchdb/SearchDbFile.h"
#include "platform/host/searchdb/SearchDbRebuild.h"

namespace recorder {

namespace {

constexpr size_t kHandles = 2;
constexpr uint32_t kTimeLimit = 2147483647;  // the file manager's times are signed

std::string DbPath(const std::string& directory) { return directory + "search.fdb"; }

bool ReadCompleted(const std::string& name, TimeSearchRecording* recording) {
  RecordName parsed{};
  if (!ParseRecordName(name, &parsed) || parsed.endTime == 0) return false;
  *recording = {static_cast<int32_t>(parsed.startTime), static_cast<int32_t>(parsed.endTime),
                parsed.channelMask};
  return true;
}

uint32_t StartTimeOf(const std::string& path) {
  RecordName name = {};
  ParseRecordName(NameOf(path), &name);
  return name.startTime;
}

std::string Plural(int64_t count, const char* what) { return FormatCount(count, "recording") + " " + what; }

// What speaks against a database that can be read; the rules are those by which it is rebuilt.
std::string CompareRows(const std::vector<std::string>& names, const std::vector<TimeSearchRecording>& rows) {
  std::map<uint32_t, RecordName> expected;
  for (const std::string& name : names) {
    RecordName record = {};
    if (ParseRecordName(name, &record)) expected[record.startTime] = record;
  }
  int64_t surplus = 0;
  int64_t different = 0;
  for (const TimeSearchRecording& row : rows) {
    const auto found = expected.find(static_cast<uint32_t>(row.startTime));
    if (found == expected.end()) {
      ++surplus;
      continue;
    }
    const RecordName& record = found->second;
    const bool isOther = record.endTime != static_cast<uint32_t>(row.endTime) ||
                         (record.channelMask != 0 && record.channelMask != row.channelMask);
    if (record.endTime != 0 && isOther) ++different;
    expected.erase(found);
  }
  int64_t missing = 0;
  for (const auto& [start, record] : expected) {
    const bool hasRow = record.endTime >= start && record.endTime <= kTimeLimit;  // of no unfinished one
    if (hasRow) ++missing;
  }
  std::string what;
  for (const std::string& part :
       {missing > 0 ? Plural(missing, "missing") : "", surplus > 0 ? Plural(surplus, "no longer there") : "",
        different > 0 ? Plural(different, "with other times or channels") : ""}) {
    if (!part.empty()) what += (what.empty() ? "is out of step with the file names: " : ", ") + part;
  }
  return what;
}

// What came since the disk was looked over.
void SetOddAside(const std::string& directory) {
  const std::string parent = DirectoryOf(directory.substr(0, directory.size() - 1));
  for (const std::string& name : ListDirectory(directory)) {
    const std::string path = directory + name;
    const std::string why = name.rfind("search.fdb", 0) == 0 ? WhyNoDatabase(path) : "";
    if (why.empty()) continue;
    const SetAsideResult result = SetAside(parent.substr(0, parent.size() - 1), path);
    Complain("%s %s%s", path.c_str(), why.c_str(),
             result.to.empty() ? " and can't be set aside" : (": set aside as " + result.to).c_str());
  }
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

void SearchIndex::Add(const std::string& path, const std::vector<PictureSpan>& spans) {
  const std::string directory = DirectoryOf(path);
  const bool isThere = Exists(DbPath(directory));
  SearchDb& db = DbOf(directory);
  TimeSearchRecording recording{};
  if (!isThere) {
    for (const std::string& name : ListDirectory(directory)) {
      if (name == NameOf(path) || !ReadCompleted(name, &recording) || !db.Add(recording)) continue;
      searchdb::Mark(directory);
    }
  }
  if (!ReadCompleted(NameOf(path), &recording)) return;
  recording.spans = spans;
  db.Add(recording);
}

void SearchIndex::AddRepaired(const std::string& path) {
  const std::string directory = DirectoryOf(path);
  if (!Exists(DbPath(directory))) {
    int files = 0;
    for (const std::string& name : ListDirectory(directory)) files += HasSuffix(name, ".imf") ? 1 : 0;
    if (files > 1) return;
  }
  std::vector<PictureSpan> spans;
  ReadCoverage(path, StartTimeOf(path), &spans);
  Add(path, spans);
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
    bool isSound = false;
    const std::string what = Disagreement(directory, records, others, &isSound);
    if (what.empty()) continue;
    if (isSound && MendSearchDb(directory)) {
      Print("mended search database %s: it %s\n", DbPath(directory).c_str(), what.c_str());
    } else if (Rebuild(directory)) {
      Print("rebuilt search database %s: it %s\n", DbPath(directory).c_str(), what.c_str());
    } else {
      Complain("search database %s %s and could not be rebuilt", DbPath(directory).c_str(), what.c_str());
    }
  }
}

std::string SearchIndex::Disagreement(const std::string& directory, const std::vector<std::string>& names,
                                      const std::vector<std::string>& others, bool* isSound) {
  const std::string path = DbPath(directory);
  bool hasJournal = false;
  for (const std::string& name : others) {
    if (HasSuffix(name, ".err")) return "is marked as damaged by " + name;
    hasJournal = hasJournal || name == "search.fdb-journal";
  }
  bool hasCompleted = false;
  for (const std::string& name : names) {
    RecordName record = {};
    hasCompleted = hasCompleted || (ParseRecordName(name, &record) && record.endTime != 0);
  }
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) {
    return hasCompleted ? "is missing" : "";
  }
  if (!S_ISREG(info.st_mode)) return "is not a regular file";
  if (info.st_size == 0) return "is empty, as a rebuild that was cut off leaves it";
  // Reading it now would take the change back, and that writes.
  if (hasJournal) return "was left in mid-change";

  SearchDb database(directory, SEARCH_DB_READ);
  TimeSearchChart chart;
  chart.startTime = INT32_MIN;  // also what no recorder has written
  chart.endTime = static_cast<int32_t>(kTimeLimit);
  if (!database.CollectData(&chart)) return "can't be read: " + database.Error();
  if (isSound != nullptr) *isSound = true;
  return CompareRows(names, chart.recordings);
}

// By the tool that the file manager uses as well. The marks go last, so that a rebuild that is cut off is done
// again.
bool SearchIndex::Rebuild(const std::string& directory) {
  SetOddAside(directory);
  if (SystemFmt("/opt/app/filedb -f %s", directory.c_str()) != 0) return false;
  for (const std::string& name : ListDirectory(directory)) {
    if (name.rfind("search.fdb.", 0) == 0 && HasSuffix(name, ".err")) unlink((directory + name).c_str());
  }
  return true;
}

}  // namespace recorder
