#include "platform/host/searchdb/SearchDbFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "SearchDb.h"

namespace searchdb {

int Execute(sqlite3* db, const char* statement) {
  return sqlite3_exec(db, statement, nullptr, nullptr, nullptr);
}

int CreateSchema(sqlite3* db) {
  std::string statements;
  for (const SchemaEntry& entry : kSchema) statements += entry.statement + std::string(";");
  statements += "PRAGMA user_version=" + std::to_string(kVersion) +
                ";PRAGMA application_id=" + std::to_string(kApplicationId) + ";";
  return Execute(db, statements.c_str());
}

int ExecuteWith(sqlite3* db, const char* statement, std::initializer_list<int64_t> values) {
  sqlite3_stmt* prepared = nullptr;
  int result = sqlite3_prepare_v2(db, statement, -1, &prepared, nullptr);
  int number = 0;
  for (const int64_t value : values) {
    if (result == SQLITE_OK) result = sqlite3_bind_int64(prepared, ++number, value);
  }
  if (result == SQLITE_OK) result = sqlite3_step(prepared);
  const int finalized = sqlite3_finalize(prepared);
  if (result == SQLITE_DONE || result == SQLITE_ROW) return finalized;
  return result;
}

int AddRecording(sqlite3* db, const TimeSearchRecording& recording) {
  const int32_t start = recording.startTime;
  int result = RemoveRecording(db, start);
  if (result == SQLITE_OK) {
    result = ExecuteWith(db, "INSERT INTO recording(start_time, end_time, channel_mask) VALUES(?1, ?2, ?3)",
                         {start, recording.endTime, recording.channelMask});
  }
  for (const PictureSpan& span : recording.spans) {
    if (result != SQLITE_OK) break;
    result =
        ExecuteWith(db, "INSERT INTO span(start_time, channel, begin_time, end_time) VALUES(?1, ?2, ?3, ?4)",
                    {start, span.channel, span.begin, span.end});
  }
  return result;
}

int RemoveRecording(sqlite3* db, int32_t startTime) {
  const int result = ExecuteWith(db, "DELETE FROM span WHERE start_time = ?1", {startTime});
  if (result != SQLITE_OK) return result;
  return ExecuteWith(db, "DELETE FROM recording WHERE start_time = ?1", {startTime});
}

int QueryNumber(sqlite3* db, const char* query, int64_t* number) {
  sqlite3_stmt* prepared = nullptr;
  int result = sqlite3_prepare_v2(db, query, -1, &prepared, nullptr);
  if (result == SQLITE_OK) result = sqlite3_step(prepared);
  if (result == SQLITE_ROW) *number = sqlite3_column_int64(prepared, 0);
  sqlite3_finalize(prepared);
  return result == SQLITE_ROW ? SQLITE_OK : result;
}

std::string Message(sqlite3* db) {
  std::string message = sqlite3_errmsg(db);
  std::replace(message.begin(), message.end(), '\n', ' ');
  return message;
}

int OpenDirectory(const std::string& directory) {
  // A slash at the end would follow a link.
  const std::string path = directory.substr(0, std::max<size_t>(directory.find_last_not_of('/') + 1, 1));
  return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

void Mark(const std::string& directory) {
  const int parent = OpenDirectory(directory);
  if (parent < 0) return;
  const int marker = openat(parent, kDamageMarker, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (marker >= 0) close(marker);
  close(parent);
}

DirectoryLock::~DirectoryLock() {
  if (mDirectory >= 0) close(mDirectory);
}

bool DirectoryLock::Acquire(const std::string& directory, int milliseconds) {
  using Clock = std::chrono::steady_clock;
  mDirectory = OpenDirectory(directory);
  if (mDirectory < 0) return false;
  const Clock::time_point limit = Clock::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    if (flock(mDirectory, milliseconds < 0 ? LOCK_EX : LOCK_EX | LOCK_NB) == 0) return true;
    const bool wait = errno == EWOULDBLOCK && Clock::now() < limit;
    if (!wait && errno != EINTR) return false;
    if (wait) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace searchdb
