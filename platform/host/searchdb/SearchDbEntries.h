// What the record files of a data directory say of the rows that its search database has: the one rule for
// making it anew and for changing what is out of step.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SearchDb.h"
#include "platform/host/imf/RecordName.h"

namespace searchdb {

// An entry that ends in ".imf".
struct Entry {
  std::string name;
  RecordName record;
  bool isRecord;  // a regular file with the name of a record file
};

// All entries of the open directory. False with errno.
bool ListEntries(int parent, std::vector<Entry>* entries);
// Only the newest file can be the one that is being recorded; an older one was left unfinished.
uint32_t NewestStart(const std::vector<Entry>& entries);

enum class RowKind {
  kRow,
  kInProgress,  // the file being recorded
  kSkipped,     // no record file, or times that mean nothing
};
// The row of an entry, but for its spans. What the name doesn't say is taken from the file. `directory` ends
// with
// "/".
RowKind RowOf(const std::string& directory, const Entry& entry, uint32_t newestStart, TimeSearchRecording* row);

}  // namespace searchdb
