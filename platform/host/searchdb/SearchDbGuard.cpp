#include "platform/host/searchdb/SearchDbGuard.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <tuple>

#include "platform/host/imf/ImfStorage.h"
#include "platform/host/searchdb/SearchDbFile.h"

namespace searchdb {
namespace {

constexpr int kPatience = 2000;            // milliseconds that one operation waits for other processes
constexpr int kStepsAtATime = 1000;        // of SQLite's machine
constexpr int kStepLimit = 40000;          // thousands: some four million spans, or two seconds
constexpr int64_t kHeapLimit = 256 << 20;  // bytes; a search needs a few MiB
constexpr int64_t kFreshSeconds = 3;
// No two threads share a connection, and a lock at each value read is half the time of a search.
constexpr int kOpen = SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX;
constexpr char kMagic[] = "SQLite format 3";  // with the zero at its end

// Where the file's header has them; numbers are big-endian.
constexpr size_t kHeaderSize = 100;
constexpr size_t kWriteFormat = 18;  // 1: rollback journal, 2: write-ahead log
constexpr size_t kReadFormat = 19;
constexpr size_t kChangeCounter = 24;
constexpr size_t kUserVersion = 60;
constexpr size_t kApplication = 68;

// Closes it at the end; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
  ~Descriptor() {
    if (mDescriptor >= 0) close(mDescriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return mDescriptor; }

 private:
  const int mDescriptor;
};

int64_t Nanoseconds(const timespec& time) { return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec; }

uint32_t NumberAt(const uint8_t* header, size_t offset) {
  uint32_t number = 0;
  for (size_t i = 0; i < 4; ++i) number = number << 8 | header[offset + i];
  return number;
}

int CountSteps(void* steps) { return ++*static_cast<int*>(steps) > kStepLimit ? 1 : 0; }

void Restrain(sqlite3* db, int* steps) {
  sqlite3_progress_handler(db, kStepsAtATime, CountSteps, steps);
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  const struct {
    int id;
    int value;
  } limits[] = {{SQLITE_LIMIT_LENGTH, 1 << 20}, {SQLITE_LIMIT_SQL_LENGTH, 1 << 16}, {SQLITE_LIMIT_COLUMN, 100},
                {SQLITE_LIMIT_EXPR_DEPTH, 100}, {SQLITE_LIMIT_COMPOUND_SELECT, 5},  {SQLITE_LIMIT_ATTACHED, 0},
                {SQLITE_LIMIT_TRIGGER_DEPTH, 1}};
  for (const auto& limit : limits) sqlite3_limit(db, limit.id, limit.value);
  // Of the whole process; a limit that it already has is its own affair.
  if (sqlite3_hard_heap_limit64(-1) == 0) sqlite3_hard_heap_limit64(kHeapLimit);
}

std::string UriOf(const std::string& path) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string uri = "file:";
  for (const char c : path) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '/') {
      uri += c;
    } else {
      uri += {'%', kDigits[static_cast<unsigned char>(c) >> 4], kDigits[c & 15]};
    }
  }
  return uri + "?mode=ro&immutable=1";
}

// SQLite refuses links anywhere in a path, while a disk may well be mounted behind one: up to the data
// directory's parent they are resolved here. Empty when there is no such directory.
std::string PathWithoutLinks(const std::string& directory) {
  const std::string own = directory.substr(0, directory.find_last_not_of('/') + 1);
  const size_t slash = own.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : own.substr(0, slash + 1);
  const std::unique_ptr<char, void (*)(void*)> real(realpath(parent.c_str(), nullptr), std::free);
  if (real == nullptr) return "";
  return std::string(real.get()) + "/" + own.substr(slash == std::string::npos ? 0 : slash + 1) + "/" + kName;
}

std::string TextAt(sqlite3_stmt* row, int column) {
  const unsigned char* text = sqlite3_column_text(row, column);
  return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

}  // namespace

bool operator==(const FileState& a, const FileState& b) {
  return std::tie(a.exists, a.device, a.inode, a.size, a.written, a.changed, a.changes) ==
         std::tie(b.exists, b.device, b.inode, b.size, b.written, b.changed, b.changes);
}

Journal JournalOf(const std::string& directory) {
  Journal journal = Journal::kNone;
  struct stat info;
  for (const char* suffix : kJournals) {
    if (lstat((directory + kName + suffix).c_str(), &info) != 0) continue;
    const int64_t age = int64_t{std::time(nullptr)} - info.st_mtim.tv_sec;
    if (age < 0 || age > kFreshSeconds) return Journal::kOld;
    journal = Journal::kFresh;
  }
  return journal;
}

std::string Look(const std::string& directory, FileState* state) {
  *state = FileState();
  struct stat own = {};
  struct stat parent = {};
  const Descriptor opened(OpenDirectory(directory));
  if (opened.Get() < 0 || fstat(opened.Get(), &parent) != 0) return std::strerror(errno);
  if (fstatat(opened.Get(), kName, &own, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? "" : std::strerror(errno);
  }
  state->exists = true;
  // Looking first keeps the open from waking a device or a pipe that lies there; the flags make sure of it.
  if (!S_ISREG(own.st_mode)) return "not a regular file";
  if (own.st_nlink != 1) return "has a second name, so it may be another file as well";
  if (own.st_dev != parent.st_dev) return "lies on another file system than its directory";
  // To close this descriptor gives up the process's own locks on the file, and there are none: SQLite has some
  // only while a statement runs.
  const Descriptor file(openat(opened.Get(), kName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.Get() < 0 || fstat(file.Get(), &own) != 0) return std::strerror(errno);
  if (!S_ISREG(own.st_mode)) return "not a regular file";
  uint8_t header[kHeaderSize] = {};
  const int64_t got = imf::ReadAt(file.Get(), header, sizeof header, 0);
  if (got < 0) return std::strerror(errno);
  state->device = own.st_dev;
  state->inode = own.st_ino;
  state->size = own.st_size;
  state->written = Nanoseconds(own.st_mtim);
  state->changed = Nanoseconds(own.st_ctim);
  state->changes = NumberAt(header, kChangeCounter);
  if (own.st_size == 0) return "";
  const bool isOurs = got == kHeaderSize && std::memcmp(header, kMagic, sizeof kMagic) == 0 &&
                      header[kWriteFormat] == 1 && header[kReadFormat] == 1 &&
                      NumberAt(header, kUserVersion) == kVersion &&
                      NumberAt(header, kApplication) == kApplicationId;
  return isOurs ? "" : "not a search database of this version";
}

int Connect(const std::string& directory, bool forWriting, int* steps, sqlite3** db) {
  const std::string path = PathWithoutLinks(directory);
  if (path.empty()) return SQLITE_CANTOPEN;
  *steps = 0;
  const int result =
      forWriting
          ? sqlite3_open_v2(path.c_str(), db, kOpen | SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr)
          : sqlite3_open_v2(UriOf(path).c_str(), db, kOpen | SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  if (*db == nullptr) return SQLITE_NOMEM;
  Restrain(*db, steps);
  sqlite3_busy_timeout(*db, kPatience);
  return result;
}

int CompareSchema(sqlite3* db, bool* isBlank) {
  sqlite3_stmt* rows = nullptr;
  int result =
      sqlite3_prepare_v2(db, "SELECT type, name, tbl_name, sql FROM sqlite_schema", -1, &rows, nullptr);
  size_t count = 0;
  bool isExpected = true;
  while (result == SQLITE_OK || result == SQLITE_ROW) {
    result = sqlite3_step(rows);
    if (result != SQLITE_ROW) break;
    isExpected = count < std::size(kSchema) && TextAt(rows, 0) == kSchema[count].type &&
                 TextAt(rows, 1) == kSchema[count].name && TextAt(rows, 2) == kSchema[count].table &&
                 TextAt(rows, 3) == kSchema[count].statement;
    ++count;
    if (!isExpected) break;
  }
  sqlite3_finalize(rows);
  if (!isExpected) return SQLITE_ERROR;
  if (result != SQLITE_DONE) return result;
  *isBlank = count == 0;
  return count == 0 || count == std::size(kSchema) ? SQLITE_OK : SQLITE_ERROR;
}

}  // namespace searchdb
