// What the search database and its rebuild share: names, schema and the lock of a data directory.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

struct TimeSearchRecording;
struct sqlite3;

namespace searchdb {

constexpr char kName[] = "search.fdb";
constexpr char kDamageMarker[] = "search.fdb.0.err";
constexpr const char* kJournals[] = {"-journal", "-wal"};  // behind the name: changes that are not finished

// Version of the schema, as in SQLite's user_version; the application id marks the file as a search database.
constexpr int kVersion = 2;
constexpr int kApplicationId = 0x46444231;

// All of the schema, in the order in which it is made and stored. A database with anything else in it is
// damaged.
struct SchemaEntry {
  const char* type;
  const char* name;
  const char* table;
  const char* statement;
};
constexpr SchemaEntry kSchema[] = {
    {"table", "recording", "recording",
     "CREATE TABLE recording(start_time INTEGER PRIMARY KEY, end_time INTEGER NOT NULL,"
     " channel_mask INTEGER NOT NULL)"},
    {"table", "span", "span",
     "CREATE TABLE span(start_time INTEGER NOT NULL, channel INTEGER NOT NULL, begin_time INTEGER NOT NULL,"
     " end_time INTEGER NOT NULL, PRIMARY KEY(start_time, channel, begin_time)) WITHOUT ROWID"},
};

// SQLite's result codes. The values are bound in order.
int Execute(sqlite3* db, const char* statement);
// Makes the schema in an empty database.
int CreateSchema(sqlite3* db);
int ExecuteWith(sqlite3* db, const char* statement, std::initializer_list<int64_t> values);
// Within a transaction of the caller's; one that fails may have done a part.
int AddRecording(sqlite3* db, const TimeSearchRecording& recording);
int RemoveRecording(sqlite3* db, int32_t startTime);
// The single number that a query answers.
int QueryNumber(sqlite3* db, const char* query, int64_t* number);
// SQLite's message in one line.
std::string Message(sqlite3* db);

// Opens a data directory, not through a symbolic link. -1 with errno.
int OpenDirectory(const std::string& directory);

// Marks the database as damaged, so that the next start makes it anew; a mark that is there stays.
void Mark(const std::string& directory);

// Advisory lock on a data directory, held while a recording is added or removed and during a rebuild, which
// replaces the file and would lose the change. A journal that lies there under the lock was left by somebody
// who died. The destructor releases it.
class DirectoryLock {
 public:
  DirectoryLock() = default;
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  // False with errno: EWOULDBLOCK after waiting for `milliseconds`, which may be -1 for no limit.
  bool Acquire(const std::string& directory, int milliseconds);
  int Directory() const { return mDirectory; }  // a descriptor, lent

 private:
  int mDirectory = -1;
};

}  // namespace searchdb
