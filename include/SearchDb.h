// The search database of one data directory: which completed recordings it holds.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "PictureSpan.h"

struct sqlite3;

// A recording, as a chart shows it.
struct TimeSearchRecording {
  int32_t startTime;     // seconds since the epoch
  int32_t endTime;       // seconds since the epoch
  uint32_t channelMask;  // bit n: channel n is in it
  // When each channel has pictures, in the order of channels and of time within each, disjoint. None at all of
  // a recording that has channels: not known, its file may tell.
  std::vector<PictureSpan> spans = {};
};

// The chart that a search fills.
struct TimeSearchChart {
  int32_t startTime = 0;  // interval asked for, seconds since the epoch
  int32_t endTime = 0;
  int32_t latestEndBefore = 0;     // hint: recordings before the interval end here; 0 when none are known
  int32_t earliestStartAfter = 0;  // hint: recordings after the interval start here; 0 when none are known
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

namespace searchdb {
class DirectoryLock;
struct FileState;
struct Knowledge;
}  // namespace searchdb

// "search.fdb" in a data directory. Operations return false on failure, say why in one line on standard error,
// and leave the database as it was. When one fails that was to write, a file "search.fdb.0.err" marks the
// database, and the next start rebuilds it. One thread at a time; any number of processes: a change waits up to
// 2 seconds for others.
//
// The file may come from anyone. It has to be a regular file with no second name, its schema exactly the one
// that is expected, no journal beside it, and no search may take longer than some seconds; else it is damaged,
// and nothing in it is run, followed or taken back. Reading changes nothing on the disk and takes no lock.
class SearchDb : public FileDb {
 public:
  // `directory` ends with "/" and is no symbolic link. When the database can't be opened, IsOpen() answers
  // false, and so do operations; those that come 10 seconds after the last attempt try again. The database may
  // be replaced by a rebuild meanwhile: operations notice.
  SearchDb(const std::string& directory, int mode);
  ~SearchDb() override;

  // A recording of the same start is replaced. Spans that can't be are left out when they are read.
  bool Add(const TimeSearchRecording& recording);
  // Removes the recordings of these starts and adds the others, all of it or nothing.
  bool Amend(const std::vector<int32_t>& removed, const std::vector<TimeSearchRecording>& added);
  // True also when there was none of that start, or no database at all; makes none.
  bool Remove(int32_t startTime);
  // Appends the recordings that overlap the chart's interval, ends included, to the chart. An empty file, as it
  // lies there while the database is rebuilt, holds none.
  bool CollectData(TimeSearchChart* chart);

 private:
  bool Fail(const std::string& why);
  bool Lock(searchdb::DirectoryLock* lock);
  std::string Inspect();
  bool Open();
  std::string CheckSchema(bool hasContent);
  void Close();
  bool IsCurrent() const;
  bool Refresh();
  bool Read(const TimeSearchChart& chart, searchdb::Knowledge* known, std::vector<TimeSearchRecording>* found);
  bool Change(const std::function<int(sqlite3*)>& change);

  const std::string mDirectory;
  const int mMode;
  std::unique_ptr<searchdb::FileState> mState;  // of the open file
  int mSteps = 0;                               // of the operation under way, towards its limit
  bool mIsBlank = false;
  bool mIsFresh = false;  // opened, and not used yet
  std::chrono::steady_clock::time_point mRetryAt;
};
