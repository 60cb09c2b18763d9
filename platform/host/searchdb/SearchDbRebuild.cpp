#include "platform/host/searchdb/SearchDbRebuild.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ImfFile.h"
#include "SearchDb.h"
#include "platform/host/imf/ImfCoverage.h"
#include "platform/host/imf/RecordName.h"
#include "platform/host/searchdb/SearchDbFile.h"

namespace {

// Neither ends in ".imf" nor looks like a damage marker, so nobody else takes any notice of it.
const std::string kTemporary = ".search.fdb.rebuild";
constexpr uint32_t kTimeLimit = 2147483647;  // charts have signed times

struct Entry {
  std::string name;
  RecordName record;
  bool isRecord;  // a regular file with the name of a record file
};

bool IsRegular(int directory, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_REG;
  struct stat info = {};
  return fstatat(directory, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
}

// All entries of the open directory that end in ".imf". False with errno.
bool ListRecords(int parent, std::vector<Entry>* entries) {
  const int descriptor = openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(descriptor), closedir);
  if (!directory) {
    close(descriptor);
    return false;
  }
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(directory.get());
    if (entry == nullptr) return errno == 0;
    Entry next = {entry->d_name, {}, false};
    const size_t length = next.name.size();
    if (length < 4 || next.name.compare(length - 4, 4, ".imf") != 0) continue;
    next.isRecord = IsRegular(dirfd(directory.get()), *entry) && ParseRecordName(next.name, &next.record);
    entries->push_back(next);
  }
}

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
  ListRecords(parent, &entries);
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
  RecordName record = entry.record;
  const bool isNewest = record.startTime == newestStart;
  if (entry.isRecord && record.endTime == 0 && isNewest) {
    ++mReport->inProgress;
    return true;
  }
  if (entry.isRecord && (record.endTime == 0 || record.channelMask == 0)) {
    imf_error_code_e error = IMF_ERROR_NONE;
    const ImfFile file(error, Path(entry.name), IMF_OPEN_READ, "", "", 0, nullptr);
    if (record.endTime == 0) record.endTime = static_cast<uint32_t>(file.GetEndTime());
    if (record.channelMask == 0) record.channelMask = file.GetStreamCountSummary().GetVideoChannelMask(0);
  }
  if (!entry.isRecord || record.endTime < record.startTime || record.endTime > kTimeLimit) {
    ++mReport->skipped;
    return true;
  }
  TimeSearchRecording recording = {static_cast<int32_t>(record.startTime), static_cast<int32_t>(record.endTime),
                                   record.channelMask};
  const auto known = mSpans.find(entry.name);
  if (known != mSpans.end()) {
    recording.spans = std::move(known->second);
  } else {
    ReadCoverage(Path(entry.name), record.startTime, &recording.spans);
  }
  return searchdb::AddRecording(mDb, recording) == SQLITE_OK;
}

bool Rebuild::Fill() {
  // Only the newest file can be the one that is being recorded; an older one was left unfinished.
  uint32_t newestStart = 0;
  for (const Entry& entry : mEntries) {
    if (entry.record.startTime <= kTimeLimit) newestStart = std::max(newestStart, entry.record.startTime);
  }
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
  if (!ListRecords(mLock.Directory(), &mEntries)) return Stop(Result::kFailed, std::strerror(errno));
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
