#include "platform/host/searchdb/SearchDbFile.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

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

int ExecuteWith(sqlite3* db, const char* statement, const int64_t* values, int count) {
  sqlite3_stmt* prepared = nullptr;
  int result = sqlite3_prepare_v2(db, statement, -1, &prepared, nullptr);
  for (int i = 0; result == SQLITE_OK && i < count; ++i) {
    result = sqlite3_bind_int64(prepared, i + 1, values[i]);
  }
  if (result == SQLITE_OK) result = sqlite3_step(prepared);
  const int finalized = sqlite3_finalize(prepared);
  if (result == SQLITE_DONE || result == SQLITE_ROW) return finalized;
  return result;
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
