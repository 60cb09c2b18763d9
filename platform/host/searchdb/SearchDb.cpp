#include "SearchDb.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "SystemHelper.h"
#include "platform/host/searchdb/SearchDbFile.h"

namespace {

constexpr int kPatience = 2000;  // milliseconds that one operation waits for other processes
constexpr std::chrono::seconds kRetry{10};

}  // namespace

FileDb::~FileDb() { sqlite3_close(mDb); }

SearchDb::SearchDb(const std::string& directory, int mode) : mDirectory(directory), mMode(mode) {
  searchdb::DirectoryLock lock;
  if (Lock(&lock)) Open();
}

// Every failure is one line. One that keeps a change out of the database marks it as well, so that the next
// start rebuilds it from the files' names and the recording is found again.
bool SearchDb::Fail(const std::string& why) {
  mError = why;
  std::fprintf(stderr, "Dbg (%s) Search database '%s%s': %s\n", gpDebugPrefix, mDirectory.c_str(),
               searchdb::kName, why.c_str());
  if (mMode != SEARCH_DB_WRITE) return false;
  const int marker = open((mDirectory + searchdb::kDamageMarker).c_str(),
                          O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (marker >= 0) close(marker);
  return false;
}

bool SearchDb::Lock(searchdb::DirectoryLock* lock) {
  if (mMode != SEARCH_DB_WRITE || lock->Acquire(mDirectory, false, kPatience)) return true;
  return Fail(errno == EWOULDBLOCK ? "is being rebuilt" : std::strerror(errno));
}

bool SearchDb::Open() {
  Close();
  mRetryAt = std::chrono::steady_clock::now() + kRetry;
  const std::string path = mDirectory + searchdb::kName;
  struct stat info = {};
  const bool exists = lstat(path.c_str(), &info) == 0;
  if (!exists && (errno != ENOENT || mMode != SEARCH_DB_WRITE)) return Fail(std::strerror(errno));
  if (exists && !S_ISREG(info.st_mode)) return Fail("not a regular file");

  int result = SQLITE_OK;
  if (mMode == SEARCH_DB_WRITE) {
    result = Connect(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  } else {
    result = Connect(path, SQLITE_OPEN_READONLY);
    // A writer died in mid-change. Only a connection that may write can take its change back.
    if (result == SQLITE_READONLY_ROLLBACK) result = Connect(path, SQLITE_OPEN_READWRITE);
  }
  std::string why;
  if (result != SQLITE_OK) {
    why = mDb != nullptr ? searchdb::Message(mDb) : "out of memory";
  } else if (mMode == SEARCH_DB_WRITE && sqlite3_db_readonly(mDb, "main") == 1) {
    why = "can't be written";
  } else {
    why = CheckSchema(exists && info.st_size > 0);
  }
  if (!why.empty()) {
    Close();
    return Fail(why);
  }
  // Of the time before the file was opened: should a rebuild have replaced it since, the next operation
  // notices.
  const bool wasEmpty = exists && info.st_size == 0;
  if (exists || lstat(path.c_str(), &info) == 0) {
    mDevice = info.st_dev;
    mInode = info.st_ino;
  }
  // An empty file is what a rebuild that was cut off leaves: to fill it without a mark would hide that its
  // recordings are missing.
  if (mMode == SEARCH_DB_WRITE && wasEmpty) Fail("was empty; marked to be rebuilt");
  return true;
}

int SearchDb::Connect(const std::string& path, int flags) {
  Close();
  int result = sqlite3_open_v2(path.c_str(), &mDb, flags, nullptr);
  if (mDb == nullptr) return SQLITE_NOMEM;
  sqlite3_extended_result_codes(mDb, 1);
  sqlite3_busy_timeout(mDb, kPatience);
  int64_t tables = 0;
  if (result != SQLITE_OK) return result;
  return searchdb::QueryNumber(mDb, "SELECT count(*) FROM sqlite_master", &tables);
}

// Makes the table where there is nothing yet. Empty, or why the file can't be used.
std::string SearchDb::CheckSchema(bool hasContent) {
  int64_t tables = 0;
  int64_t version = 0;
  int64_t application = 0;
  const bool isWriter = mMode == SEARCH_DB_WRITE;
  if ((isWriter && searchdb::Execute(mDb, "BEGIN IMMEDIATE") != SQLITE_OK) ||
      searchdb::QueryNumber(mDb, "SELECT count(*) FROM sqlite_master", &tables) != SQLITE_OK ||
      searchdb::QueryNumber(mDb, "PRAGMA user_version", &version) != SQLITE_OK ||
      searchdb::QueryNumber(mDb, "PRAGMA application_id", &application) != SQLITE_OK) {
    return searchdb::Message(mDb);
  }
  const bool isOurs = version == searchdb::kVersion && application == searchdb::kApplicationId;
  // SQLite takes a file of a few bytes for an empty one.
  mIsBlank = !hasContent && tables == 0 && version == 0 && application == 0;
  if (!mIsBlank && !isOurs) return "not a search database of this version";
  if (!isWriter) return "";
  if ((mIsBlank && searchdb::Execute(mDb, searchdb::kCreate) != SQLITE_OK) ||
      searchdb::Execute(mDb, "COMMIT") != SQLITE_OK) {
    return searchdb::Message(mDb);
  }
  mIsBlank = false;
  return "";
}

void SearchDb::Close() {
  sqlite3_close(mDb);
  mDb = nullptr;
}

// A rebuild or a hand may have put another file in the place of the open one.
bool SearchDb::Refresh() {
  if (mDb == nullptr && std::chrono::steady_clock::now() < mRetryAt) return false;
  mError.clear();
  struct stat info = {};
  const bool exists = lstat((mDirectory + searchdb::kName).c_str(), &info) == 0;
  if (mDb != nullptr && exists && info.st_size > 0 && info.st_dev == mDevice && info.st_ino == mInode)
    return true;
  return Open();
}

bool SearchDb::Add(const TimeSearchRecording& recording) {
  const int64_t values[] = {recording.startTime, recording.endTime, recording.channelMask};
  return Change(searchdb::kInsert, values, 3);
}

bool SearchDb::Remove(int32_t startTime) {
  struct stat info = {};
  // The directory may be about to go: nothing is made anew only to remove something from it.
  if (mMode == SEARCH_DB_WRITE && lstat((mDirectory + searchdb::kName).c_str(), &info) != 0 &&
      errno == ENOENT) {
    mError.clear();
    return true;
  }
  const int64_t values[] = {startTime};
  return Change("DELETE FROM recording WHERE start_time = ?1", values, 1);
}

bool SearchDb::Change(const char* statement, const int64_t* values, int count) {
  if (mMode != SEARCH_DB_WRITE) return Fail("open for reading only");
  searchdb::DirectoryLock lock;
  if (!Lock(&lock) || !Refresh()) return false;
  if (searchdb::ExecuteWith(mDb, statement, values, count) == SQLITE_OK) return true;
  return Fail(searchdb::Message(mDb));
}

bool SearchDb::CollectData(TimeSearchChart* chart) {
  if (!Refresh()) return false;
  if (mIsBlank) return true;
  sqlite3_stmt* query = nullptr;
  int result = sqlite3_prepare_v2(mDb,
                                  "SELECT start_time, end_time, channel_mask FROM recording"
                                  " WHERE start_time <= ?2 AND end_time >= ?1",
                                  -1, &query, nullptr);
  std::vector<TimeSearchRecording> found;
  if (result == SQLITE_OK) {
    sqlite3_bind_int64(query, 1, chart->startTime);
    sqlite3_bind_int64(query, 2, chart->endTime);
    while ((result = sqlite3_step(query)) == SQLITE_ROW) {
      found.push_back({sqlite3_column_int(query, 0), sqlite3_column_int(query, 1),
                       static_cast<uint32_t>(sqlite3_column_int64(query, 2))});
    }
  }
  sqlite3_finalize(query);
  if (result != SQLITE_DONE) return Fail(searchdb::Message(mDb));
  chart->recordings.insert(chart->recordings.end(), found.begin(), found.end());
  return true;
}
