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

DirectoryLock::~DirectoryLock() {
  if (mDirectory >= 0) close(mDirectory);
}

bool DirectoryLock::Acquire(const std::string& directory, bool exclusive, int milliseconds) {
  using Clock = std::chrono::steady_clock;
  mDirectory = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (mDirectory < 0) return false;
  const int kind = exclusive ? LOCK_EX : LOCK_SH;
  const Clock::time_point limit = Clock::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    if (flock(mDirectory, milliseconds < 0 ? kind : kind | LOCK_NB) == 0) return true;
    const bool wait = errno == EWOULDBLOCK && Clock::now() < limit;
    if (!wait && errno != EINTR) return false;
    if (wait) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace searchdb
