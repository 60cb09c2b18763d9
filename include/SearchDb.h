// The search database of one data directory: which completed recordings it holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

// A recording, as a chart shows it.
struct TimeSearchRecording {
  int32_t startTime;     // seconds since the epoch
  int32_t endTime;       // seconds since the epoch
  uint32_t channelMask;  // bit n: channel n is in it
};

// The chart that a search fills.
struct TimeSearchChart {
  int32_t startTime = 0;            // interval asked for, seconds since the epoch
  int32_t endTime = 0;
  int32_t latestEndBefore = 0;      // hint: recordings before the interval end here; 0 when none are known
  int32_t earliestStartAfter = 0;   // hint: recordings after the interval start here; 0 when none are known
  std::vector<TimeSearchRecording> recordings;  // those that overlap the interval, in no particular order
};

// An open database file. The destructor closes it.
class FileDb {
 public:
  virtual ~FileDb();
  FileDb(const FileDb&) = delete;
  FileDb& operator=(const FileDb&) = delete;

  bool IsOpen() const { return mDb != nullptr; }
  // Why the last operation failed, one line without a line end; empty after a success.
  const std::string& Error() const { return mError; }

 protected:
  FileDb() = default;
  sqlite3* mDb = nullptr;
  std::string mError;
};

constexpr int SEARCH_DB_WRITE = 0;  // opened for writing, made when missing
constexpr int SEARCH_DB_READ = 1;   // opened for reading only, never made

// "search.fdb" in a data directory. Operations return false on failure and leave the database as it was.
class SearchDb : public FileDb {
 public:
  // `directory` ends with "/". A database that can't be opened is reported in one line on standard error; every
  // operation then answers false. A database found damaged while open for writing is marked by a file
  // "search.fdb.0.err", which makes the next start rebuild it.
  SearchDb(const std::string& directory, int mode);

  // A recording of the same start is replaced.
  bool Add(const TimeSearchRecording& recording);
  // True also when there was none of that start.
  bool Remove(int32_t startTime);
  // Appends the recordings that overlap the chart's interval, ends included, to the chart.
  bool CollectData(TimeSearchChart* chart);
};
