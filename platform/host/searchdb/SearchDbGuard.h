// What keeps a database that somebody else wrote from doing harm: disks go from hand to hand, and a recorder
// often runs as root.
#pragma once

#include <cstdint>
#include <string>

struct sqlite3;

namespace searchdb {

// A database file as it lies there. Two equal states: nothing was written in between.
struct FileState {
  bool exists = false;
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t size = 0;
  int64_t written = 0;   // nanoseconds
  int64_t changed = 0;   // the same for the inode, which nobody can set back
  uint32_t changes = 0;  // SQLite's counter; 0 in an empty file
};
bool operator==(const FileState& a, const FileState& b);

// A journal beside the database in `directory` (with a slash at its end): changes are under way, or were cut
// off. SQLite would take them back at the first read, and delete whatever file the journal names.
enum class Journal {
  kNone,
  kFresh,  // of these seconds: it may be a change under way
  kOld,
};
Journal JournalOf(const std::string& directory);

// Looks at the database without SQLite. Empty when it is missing, empty, or a database of this version in a
// regular file of the directory's own file system that has no second name; else why it must not be opened.
std::string Look(const std::string& directory, FileState* state);

// Opens it. For reading, the file counts as one that nobody changes: no lock, no journal, nothing written.
// Neither the file nor its directory may be a symbolic link. SQLite's result code; `*db` is set also by most
// failures, and to be closed. `steps` (outlives the connection) counts towards the limit at which every
// statement is interrupted; reset it before each operation.
int Connect(const std::string& directory, bool forWriting, int* steps, sqlite3** db);

// Whether the schema is exactly the expected one; anything else in it could run code of its own. SQLITE_ERROR
// when it is not; `isBlank` when there is none.
int CompareSchema(sqlite3* db, bool* isBlank);

}  // namespace searchdb
