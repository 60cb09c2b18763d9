#include <unistd.h>

#include <map>
#include <set>

#include "platform/host/imf/ImfCoverage.h"
#include "platform/host/searchdb/SearchDbEntries.h"
#include "platform/host/searchdb/SearchDbFile.h"
#include "platform/host/searchdb/SearchDbRebuild.h"

namespace {

using searchdb::Entry;
using Rows = std::map<int32_t, TimeSearchRecording>;  // by start

bool List(const std::string& directory, std::vector<Entry>* entries) {
  const int parent = searchdb::OpenDirectory(directory);
  if (parent < 0) return false;
  const bool isListed = searchdb::ListEntries(parent, entries);
  close(parent);
  return isListed;
}

}  // namespace

bool MendSearchDb(const std::string& directory) {
  SearchDb db(directory, SEARCH_DB_WRITE);
  TimeSearchChart chart;
  chart.startTime = INT32_MIN;
  chart.endTime = INT32_MAX;
  std::vector<Entry> entries;
  if (!db.CollectData(&chart) || !List(directory, &entries)) return false;
  Rows rows;
  for (const TimeSearchRecording& row : chart.recordings) rows[row.startTime] = row;
  const uint32_t newestStart = searchdb::NewestStart(entries);
  std::set<uint32_t> starts;
  std::vector<TimeSearchRecording> changed;
  for (const Entry& entry : entries) {
    if (!entry.isRecord) continue;
    // Of two files with one start a rebuild decides.
    if (!starts.insert(entry.record.startTime).second) return false;
    const auto row = rows.find(static_cast<int32_t>(entry.record.startTime));
    TimeSearchRecording recording = {};
    if (searchdb::RowOf(directory, entry, newestStart, &recording) != searchdb::RowKind::kRow) continue;
    // Of a file that was left unfinished more may be known now.
    if (row == rows.end() || entry.record.endTime == 0 || row->second.endTime != recording.endTime ||
        row->second.channelMask != recording.channelMask) {
      ReadCoverage(directory + entry.name, entry.record.startTime, &recording.spans);
      changed.push_back(recording);
    }
    if (row != rows.end()) rows.erase(row);
  }
  std::vector<int32_t> surplus;
  for (const auto& [start, row] : rows) surplus.push_back(start);
  return db.Amend(surplus, changed);
}
