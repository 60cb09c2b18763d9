// What the search database and its rebuild share: names, schema and the lock of a data directory.
#pragma once

#include <cstdint>
#include <string>

struct sqlite3;

namespace searchdb {

constexpr char kName[] = "search.fdb";
constexpr char kDamageMarker[] = "search.fdb.0.err";

// Version of the schema, as in SQLite's user_version; the application id marks the file as a search database.
constexpr int kVersion = 1;
constexpr int kApplicationId = 0x46444231;
constexpr char kCreate[] =
    "CREATE TABLE recording(start_time INTEGER PRIMARY KEY, end_time INTEGER NOT NULL,"
    " channel_mask INTEGER NOT NULL);"
    "PRAGMA user_version=1; PRAGMA application_id=1178878513;";
static_assert(kVersion == 1 && kApplicationId == 1178878513, "as in the statement above");
constexpr char kInsert[] =
    "INSERT OR REPLACE INTO recording(start_time, end_time, channel_mask) VALUES(?1, ?2, ?3)";

// SQLite's result codes. At most three values are bound, in order.
int Execute(sqlite3* db, const char* statement);
int ExecuteWith(sqlite3* db, const char* statement, const int64_t* values, int count);
// The single number that a query answers.
int QueryNumber(sqlite3* db, const char* query, int64_t* number);
// SQLite's message in one line.
std::string Message(sqlite3* db);

// Advisory lock on a data directory: shared while a recording is added or removed, exclusive during a rebuild,
// which replaces the file and would lose the change. The destructor releases it.
class DirectoryLock {
 public:
  DirectoryLock() = default;
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  // False with errno; EWOULDBLOCK after waiting for `milliseconds`, which may be -1 for no limit.
  bool Acquire(const std::string& directory, bool exclusive, int milliseconds);
  int Directory() const { return mDirectory; }  // a descriptor, lent

 private:
  int mDirectory = -1;
};

}  // namespace searchdb
