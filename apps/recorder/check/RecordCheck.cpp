#include "apps/recorder/check/RecordCheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>

#include "SearchDb.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "fmgr/FmgrDataRepository.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr uint32_t kTimeLimit = 2147483647;  // the file manager's times are signed

std::string ProperName(const RecordName& record) {
  flc_file_info_param_t info = {};
  info.startTime = record.startTime;
  info.endTime = record.endTime;
  info.channelMask = record.channelMask;
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, info);
  return name;
}

// What speaks against a completed recording's header; empty when nothing does.
std::string CompareHeader(const std::string& path, const RecordName& record) {
  ImfReader reader;
  if (!reader.Open(path)) {
    const std::string& error = reader.Error();
    return error.compare(0, path.size(), path) == 0 ? error.substr(path.size() + 2) : error;
  }
  if (reader.StartTime() != record.startTime) {
    return "its header belongs to a recording that starts at " + FormatTime(reader.StartTime());
  }
  if (reader.EndTime() == 0) return "its header tells no end time";
  if (reader.EndTime() != record.endTime)
    return "its header tells another end, " + FormatTime(reader.EndTime());
  if (reader.ChannelMask() != record.channelMask) {
    return "its header tells other channels, " + FormatChannels(reader.ChannelMask());
  }
  return "";
}

std::string Plural(int64_t count, const char* what) {
  return std::to_string(count) + " recording" + (count == 1 ? " " : "s ") + what;
}

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
  for (const std::string& part : {missing > 0 ? Plural(missing, "missing") : "",
                                  surplus > 0 ? Plural(surplus, "that are no longer there") : "",
                                  different > 0 ? Plural(different, "with other times or channels") : ""}) {
    if (!part.empty()) what += (what.empty() ? "is out of step with the file names: " : ", ") + part;
  }
  return what;
}

}  // namespace

void CheckRecordings(const std::string& directory, const std::vector<std::string>& names, const Blame& blame,
                     std::vector<CheckedRecording>* completed) {
  std::map<uint32_t, std::string> starts;  // of several files with one start, the last one that is completed
  RecordName record = {};
  for (const std::string& name : names) {
    if (!ParseRecordName(name, &record)) continue;
    std::string& known = starts[record.startTime];
    if (known.empty() || record.endTime != 0) known = name;
  }
  for (const std::string& name : names) {
    const std::string path = directory + name;
    if (!ParseRecordName(name, &record)) {
      blame(Fault::kName, path, "its name tells no start time");
      continue;
    }
    const std::string& known = starts[record.startTime];
    if (known != name) {
      blame(Fault::kTwoStarts, path, "starts in the same second as " + known);
    } else if (name != ProperName(record)) {
      blame(Fault::kName, path, "its name should be " + ProperName(record));
    } else if (record.endTime == 0) {
      blame(Fault::kUnfinished, path, "was never completed");
    } else if (record.endTime <= record.startTime || record.endTime > kTimeLimit) {
      blame(Fault::kName, path, "its name tells an end that can't be");
    } else {
      const std::string what = CompareHeader(path, record);
      if (!what.empty())
        blame(access(path.c_str(), R_OK) == 0 ? Fault::kHeader : Fault::kUnreadable, path, what);
      completed->push_back({record.startTime, record.endTime, path});
    }
  }
}

void CheckSearchDb(const std::string& directory, const std::vector<std::string>& names,
                   const std::vector<std::string>& others, const Blame& blame) {
  const std::string path = directory + "search.fdb";
  bool hasJournal = false;
  for (const std::string& name : others) {
    if (HasSuffix(name, ".err")) return blame(Fault::kSearchDb, path, "is marked as damaged by " + name);
    hasJournal = hasJournal || name == "search.fdb-journal";
  }
  bool hasCompleted = false;
  for (const std::string& name : names) {
    RecordName record = {};
    hasCompleted = hasCompleted || (ParseRecordName(name, &record) && record.endTime != 0);
  }
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) {
    if (hasCompleted) blame(Fault::kSearchDb, path, "is missing");
    return;
  }
  if (!S_ISREG(info.st_mode)) return blame(Fault::kSearchDb, path, "is not a regular file");
  if (info.st_size == 0)
    return blame(Fault::kSearchDb, path, "is empty, as a rebuild that was cut off leaves it");
  // Reading it now would take the change back, and that writes.
  if (hasJournal) return blame(Fault::kSearchDb, path, "was left in mid-change");

  SearchDb database(directory, SEARCH_DB_READ);
  TimeSearchChart chart;
  chart.endTime = static_cast<int32_t>(kTimeLimit);
  if (!database.CollectData(&chart)) return blame(Fault::kSearchDb, path, "can't be read: " + database.Error());
  const std::string what = CompareRows(names, chart.recordings);
  if (!what.empty()) blame(Fault::kSearchDb, path, what);
}

}  // namespace recorder
