#include "platform/host/searchdb/SearchDbRebuild.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "SearchDb.h"
#include "platform/host/imf/ImfCoverage.h"
#include "platform/host/searchdb/SearchDbEntries.h"
#include "platform/host/searchdb/SearchDbFile.h"

namespace {

using searchdb::Entry;

// Neither ends in ".imf" nor looks like a damage marker, so nobody else takes any notice of it.
const std::string kTemporary = ".search.fdb.rebuild";

class Rebuild {
 public:
  Rebuild(const std::string& directory, SearchDbRebuildReport* report)
      : mDirectory(directory + (directory.empty() || directory.back() != '/' ? "/" : "")), mReport(report) {}
  ~Rebuild() { sqlite3_close(mDb); }

  SearchDbRebuildResult Run(const std::function<void(size_t, size_t)>& progress);

 private:
  SearchDbRebuildResult Stop(SearchDbRebuildResult result, const std::string& why) {
    mReport->error = why;
    return result;
  }
  void ReadFiles(const std::function<void(size_t, size_t)>& progress);
  bool IsReplaceable() const;
  bool Empty();
  bool Fill();
  bool AddEntry(const Entry& entry, uint32_t newestStart);
  bool Publish();
  std::string Path(const std::string& name) const { return mDirectory + name; }
  void Discard(const std::string& name) const { unlinkat(mLock.Directory(), name.c_str(), 0); }
  std::string Why() const { return mDb != nullptr ? searchdb::Message(mDb) : std::strerror(errno); }

  const std::string mDirectory;
  SearchDbRebuildReport* const mReport;
  searchdb::DirectoryLock mLock;
  std::vector<Entry> mEntries;
  std::map<std::string, std::vector<PictureSpan>> mSpans;  // by name
  sqlite3* mDb = nullptr;
};

// Before the lock is taken: whoever records adds to the database meanwhile, and waits for two seconds only.
// What was read stays true of a file that keeps its name.
void Rebuild::ReadFiles(const std::function<void(size_t, size_t)>& progress) {
  const int parent = searchdb::OpenDirectory(mDirectory);
  if (parent < 0) return;
  std::vector<Entry> entries;
  searchdb::ListEntries(parent, &entries);
  close(parent);
  size_t done = 0;
  for (const Entry& entry : entries) {
    if (entry.isRecord && entry.record.endTime != 0) {
      ReadCoverage(Path(entry.name), entry.record.startTime, &mSpans[entry.name]);
    }
    if (progress) progress(++done, entries.size());
  }
}

// False: what lies there is not to be touched.
bool Rebuild::IsReplaceable() const {
  struct stat info = {};
  struct stat parent = {};
  const std::string path = Path(searchdb::kName);
  return stat(mDirectory.c_str(), &parent) != 0 || lstat(path.c_str(), &info) != 0 ||
         (S_ISREG(info.st_mode) && info.st_dev == parent.st_dev);
}

// By path: a descriptor of the database that is closed here would release the locks that SQLite holds on it
// elsewhere in this process.
bool Rebuild::Empty() {
  struct stat info = {};
  const bool exists = fstatat(mLock.Directory(), searchdb::kName, &info, AT_SYMLINK_NOFOLLOW) == 0;
  if (!exists && errno != ENOENT) return false;
  // A second name may be a recording's: what lies there only loses this one.
  if (exists && info.st_nlink != 1) Discard(searchdb::kName);
  if (exists && info.st_nlink == 1 && truncate(Path(searchdb::kName).c_str(), 0) != 0) return false;
  // Changes of the old database that were never finished must not be applied to the new one.
  for (const char* suffix : searchdb::kJournals) Discard(searchdb::kName + std::string(suffix));
  Discard(searchdb::kName + std::string("-shm"));
  // What a rebuild that was cut off left.
  for (const char* suffix : {"", "-journal"}) Discard(kTemporary + suffix);
  return fsync(mLock.Directory()) == 0;
}

bool Rebuild::AddEntry(const Entry& entry, uint32_t newestStart) {
  TimeSearchRecording recording = {};
  const searchdb::RowKind kind = searchdb::RowOf(mDirectory, entry, newestStart, &recording);
  if (kind != searchdb::RowKind::kRow) {
    ++(kind == searchdb::RowKind::kInProgress ? mReport->inProgress : mReport->skipped);
    return true;
  }
  const auto known = mSpans.find(entry.name);
  if (known != mSpans.end()) {
    recording.spans = std::move(known->second);
  } else {
    ReadCoverage(Path(entry.name), entry.record.startTime, &recording.spans);
  }
  return searchdb::AddRecording(mDb, recording) == SQLITE_OK;
}

bool Rebuild::Fill() {
  const uint32_t newestStart = searchdb::NewestStart(mEntries);
  for (const Entry& entry : mEntries) {
    if (!AddEntry(entry, newestStart)) return false;
  }
  int64_t count = 0;
  if (searchdb::QueryNumber(mDb, "SELECT count(*) FROM recording", &count) != SQLITE_OK) return false;
  mReport->recordings = static_cast<size_t>(count);
  return searchdb::Execute(mDb, "COMMIT") == SQLITE_OK;
}

bool Rebuild::Publish() {
  const int file = open(Path(kTemporary).c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool durable = fsync(file) == 0;
  close(file);
  return durable && rename(Path(kTemporary).c_str(), Path(searchdb::kName).c_str()) == 0 &&
         fsync(mLock.Directory()) == 0;
}

SearchDbRebuildResult Rebuild::Run(const std::function<void(size_t, size_t)>& progress) {
  using Result = SearchDbRebuildResult;
  if (IsReplaceable()) ReadFiles(progress);
  if (!mLock.Acquire(mDirectory, -1)) return Stop(Result::kRefused, std::strerror(errno));
  if (!IsReplaceable()) return Stop(Result::kRefused, "search.fdb is not a regular file of this file system");
  if (!searchdb::ListEntries(mLock.Directory(), &mEntries)) return Stop(Result::kFailed, std::strerror(errno));
  if (!Empty()) return Stop(Result::kFailed, std::strerror(errno));

  // No journal: a database that is not finished is thrown away.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  const bool isMade =
      sqlite3_open_v2(Path(kTemporary).c_str(), &mDb, flags, nullptr) == SQLITE_OK &&
      searchdb::Execute(mDb, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; BEGIN") == SQLITE_OK &&
      searchdb::CreateSchema(mDb) == SQLITE_OK && Fill();
  if (!isMade) {
    const std::string why = Why();
    Discard(kTemporary);
    return Stop(Result::kFailed, why);
  }
  sqlite3_close(mDb);
  mDb = nullptr;
  if (Publish()) return Result::kDone;
  const std::string why = std::strerror(errno);
  Discard(kTemporary);
  return Stop(Result::kFailed, why);
}

}  // namespace

SearchDbRebuildResult RebuildSearchDb(const std::string& directory,
                                      const std::function<void(size_t, size_t)>& progress,
                                      SearchDbRebuildReport* report) {
  *report = SearchDbRebuildReport();
  return Rebuild(directory, report).Run(progress);
}
