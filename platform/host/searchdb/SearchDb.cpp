#include "SearchDb.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <thread>
#include <utility>

#include "SystemHelper.h"
#include "platform/host/searchdb/SearchDbFile.h"
#include "platform/host/searchdb/SearchDbGuard.h"
#include "platform/host/searchdb/SearchDbMemory.h"

namespace {

constexpr int kPatience = 2000;  // milliseconds that a change waits for other processes
constexpr std::chrono::seconds kRetry{10};
constexpr int kReadings = 5;  // of a database that is being changed: a change takes a few milliseconds
constexpr std::chrono::milliseconds kBetweenReadings{20};

constexpr int64_t kTimeLimit = int64_t{1} << 53;  // microseconds: further off than anybody records

constexpr char kInChange[] = "is being changed, or a change was cut off";

}  // namespace

FileDb::~FileDb() { sqlite3_close(mDb); }

SearchDb::SearchDb(const std::string& directory, int mode)
    : mDirectory(directory), mMode(mode), mState(std::make_unique<searchdb::FileState>()) {
  searchdb::DirectoryLock lock;
  if (Lock(&lock)) mIsFresh = Open();
}

SearchDb::~SearchDb() = default;

// Every failure is one line. One that keeps a change out of the database marks it as well, so that the next
// start rebuilds it from the files' names and the recording is found again.
bool SearchDb::Fail(const std::string& why) {
  mError = why;
  std::fprintf(stderr, "Dbg (%s) Search database '%s%s': %s\n", gpDebugPrefix, mDirectory.c_str(),
               searchdb::kName, why.c_str());
  if (mMode == SEARCH_DB_WRITE) searchdb::Mark(mDirectory);
  return false;
}

bool SearchDb::Lock(searchdb::DirectoryLock* lock) {
  if (mMode != SEARCH_DB_WRITE || lock->Acquire(mDirectory, kPatience)) return true;
  return Fail(errno == EWOULDBLOCK ? "is being rebuilt" : std::strerror(errno));
}

// Empty, or why the file must not be opened. A reader waits for a change under way.
std::string SearchDb::Inspect() {
  for (int look = 1;; ++look) {
    const std::string why = searchdb::Look(mDirectory, mState.get());
    const searchdb::Journal journal = searchdb::JournalOf(mDirectory);
    if (journal == searchdb::Journal::kNone) return why;
    // Changes are made under the lock that a writer has by now.
    if (mMode == SEARCH_DB_WRITE || journal == searchdb::Journal::kOld || look == kReadings) return kInChange;
    std::this_thread::sleep_for(kBetweenReadings);
  }
}

bool SearchDb::Open() {
  Close();
  mRetryAt = std::chrono::steady_clock::now() + kRetry;
  const bool isWriter = mMode == SEARCH_DB_WRITE;
  // The state of the time before the file is opened: should a rebuild replace it since, the next operation
  // notices.
  std::string why = Inspect();
  const bool wasEmpty = mState->exists && mState->size == 0;
  if (why.empty() && !mState->exists && !isWriter) why = std::strerror(ENOENT);
  if (why.empty() && searchdb::Connect(mDirectory, isWriter, &mSteps, &mDb) != SQLITE_OK) {
    why = mDb != nullptr ? searchdb::Message(mDb) : "out of memory";
  }
  if (why.empty() && isWriter && sqlite3_db_readonly(mDb, "main") == 1) why = "can't be written";
  if (why.empty()) why = CheckSchema(mState->size > 0);
  if (!why.empty()) {
    Close();
    return Fail(why);
  }
  if (!mState->exists) searchdb::Look(mDirectory, mState.get());
  // An empty file is what a rebuild that was cut off leaves: to fill it without a mark would hide that its
  // recordings are missing.
  if (isWriter && wasEmpty) Fail("was empty; marked to be rebuilt");
  return true;
}

// Makes the schema where there is nothing yet. Empty, or why the file can't be used.
std::string SearchDb::CheckSchema(bool hasContent) {
  const bool isWriter = mMode == SEARCH_DB_WRITE;
  if (!isWriter && searchdb::Recall(*mState)) {  // it was compared before
    mIsBlank = false;
    return "";
  }
  if (isWriter && searchdb::Execute(mDb, "BEGIN IMMEDIATE") != SQLITE_OK) return searchdb::Message(mDb);
  const int result = searchdb::CompareSchema(mDb, &mIsBlank);
  if (result == SQLITE_ERROR || (mIsBlank && hasContent)) return "has another schema";
  if (result != SQLITE_OK) return searchdb::Message(mDb);
  if (!isWriter) return "";
  if ((mIsBlank && searchdb::CreateSchema(mDb) != SQLITE_OK) || searchdb::Execute(mDb, "COMMIT") != SQLITE_OK) {
    return searchdb::Message(mDb);
  }
  mIsBlank = false;
  return "";
}

void SearchDb::Close() {
  sqlite3_close(mDb);
  mDb = nullptr;
}

// A rebuild or a hand may have put another file in the place of the open one, or a journal beside it; and a
// reader's connection takes the file for one that never changes.
bool SearchDb::IsCurrent() const {
  searchdb::FileState now;
  if (mDb == nullptr || !searchdb::Look(mDirectory, &now).empty() ||
      searchdb::JournalOf(mDirectory) != searchdb::Journal::kNone) {
    return false;
  }
  if (mMode == SEARCH_DB_READ) return now == *mState;
  return now.size > 0 && now.device == mState->device && now.inode == mState->inode;
}

bool SearchDb::Refresh() {
  if (mDb == nullptr && std::chrono::steady_clock::now() < mRetryAt) return false;
  mError.clear();
  mSteps = 0;
  // A reader looks at the end once more, so what was opened a moment ago needs no look now.
  const bool isFresh = std::exchange(mIsFresh, false) && mMode == SEARCH_DB_READ;
  return isFresh || IsCurrent() || Open();
}

bool SearchDb::Add(const TimeSearchRecording& recording) { return Amend({}, {recording}); }

bool SearchDb::Amend(const std::vector<int32_t>& removed, const std::vector<TimeSearchRecording>& added) {
  return Change([&](sqlite3* db) {
    int result = SQLITE_OK;
    for (size_t i = 0; result == SQLITE_OK && i < removed.size(); ++i) {
      result = searchdb::RemoveRecording(db, removed[i]);
    }
    for (size_t i = 0; result == SQLITE_OK && i < added.size(); ++i) {
      result = searchdb::AddRecording(db, added[i]);
    }
    return result;
  });
}

bool SearchDb::Remove(int32_t startTime) {
  struct stat info = {};
  // The directory may be about to go: nothing is made anew only to remove something from it.
  if (mMode == SEARCH_DB_WRITE && lstat((mDirectory + searchdb::kName).c_str(), &info) != 0 &&
      errno == ENOENT) {
    mError.clear();
    return true;
  }
  return Change([&](sqlite3* db) { return searchdb::RemoveRecording(db, startTime); });
}

bool SearchDb::Change(const std::function<int(sqlite3*)>& change) {
  if (mMode != SEARCH_DB_WRITE) return Fail("open for reading only");
  searchdb::DirectoryLock lock;
  if (!Lock(&lock) || !Refresh()) return false;
  if (searchdb::Execute(mDb, "BEGIN IMMEDIATE") == SQLITE_OK && change(mDb) == SQLITE_OK &&
      searchdb::Execute(mDb, "COMMIT") == SQLITE_OK) {
    return true;
  }
  const std::string why = searchdb::Message(mDb);
  if (sqlite3_get_autocommit(mDb) == 0) searchdb::Execute(mDb, "ROLLBACK");
  return Fail(why);
}

// A reader takes no lock, so that it can't hold up a recorder. What it read counts when nothing was changed
// meanwhile.
bool SearchDb::CollectData(TimeSearchChart* chart) {
  for (int reading = 1;; ++reading) {
    searchdb::DirectoryLock lock;
    if (!Lock(&lock) || !Refresh()) return false;
    std::vector<TimeSearchRecording> found;
    searchdb::Knowledge knowledge;
    if (mMode == SEARCH_DB_READ) knowledge = searchdb::Recall(*mState).value_or(knowledge);
    const bool isRead = mIsBlank || Read(*chart, &knowledge, &found);
    const std::string why = isRead ? "" : searchdb::Message(mDb);
    if (mMode == SEARCH_DB_WRITE || IsCurrent()) {
      if (!isRead) return Fail(why);
      if (mMode == SEARCH_DB_READ && !mIsBlank) searchdb::Keep(*mState, knowledge);
      if (chart->recordings.empty()) {
        chart->recordings = std::move(found);
      } else {
        std::move(found.begin(), found.end(), std::back_inserter(chart->recordings));
      }
      return true;
    }
    Close();
    mRetryAt = {};
    if (reading == kReadings) return Fail(kInChange);
    std::this_thread::sleep_for(kBetweenReadings);
  }
}

// What is known of the database's longest recording keeps the search from reading all before the interval; what
// starts later than it is known of is read, so that it is known afterwards.
bool SearchDb::Read(const TimeSearchChart& chart, searchdb::Knowledge* known,
                    std::vector<TimeSearchRecording>* found) {
  const auto read = [this](const char* text, std::initializer_list<int64_t> values,
                           const std::function<void(sqlite3_stmt*)>& take) {
    sqlite3_stmt* query = nullptr;
    int result = sqlite3_prepare_v2(mDb, text, -1, &query, nullptr);
    int number = 0;
    for (const int64_t value : values) {
      if (result == SQLITE_OK) result = sqlite3_bind_int64(query, ++number, value);
    }
    if (result == SQLITE_OK) {
      while ((result = sqlite3_step(query)) == SQLITE_ROW) take(query);
    }
    sqlite3_finalize(query);
    return result == SQLITE_DONE;
  };
  const bool isNew = known->upTo < chart.endTime;
  const int64_t first = chart.startTime - known->longest;
  if (!read(
          "SELECT start_time, end_time, channel_mask FROM recording WHERE start_time BETWEEN ?1 AND ?2"
          " AND (end_time >= ?3 OR end_time - start_time > ?4) ORDER BY start_time",
          {isNew && known->upTo < first ? known->upTo : first, chart.endTime, chart.startTime, known->longest},
          [&](sqlite3_stmt* row) {
            const int64_t start = sqlite3_column_int64(row, 0);
            const int64_t end = sqlite3_column_int64(row, 1);
            // Not of somebody else's making, where a difference might not fit.
            const bool isTime = start >= -kTimeLimit && end <= kTimeLimit;
            known->longest = std::max(known->longest, isTime ? end - start : 2 * kTimeLimit);
            if (end < chart.startTime) return;
            found->push_back({static_cast<int32_t>(start), static_cast<int32_t>(end),
                              static_cast<uint32_t>(sqlite3_column_int64(row, 2))});
          })) {
    return false;
  }
  if (isNew) known->upTo = chart.endTime;
  if (found->empty()) return true;
  auto owner = found->begin();
  return read(
      "SELECT start_time, channel, begin_time, end_time FROM span WHERE start_time BETWEEN ?1 AND ?2"
      " ORDER BY start_time, channel, begin_time",
      {found->front().startTime, found->back().startTime}, [&](sqlite3_stmt* row) {
        const int64_t start = sqlite3_column_int64(row, 0);
        const int64_t channel = sqlite3_column_int64(row, 1);
        const int64_t begin = sqlite3_column_int64(row, 2);
        const int64_t end = sqlite3_column_int64(row, 3);
        while (owner != found->end() && owner->startTime < start) ++owner;
        if (owner == found->end() || owner->startTime != start) return;
        if (channel < 0 || channel > 31 || begin < 0 || end <= begin || end > kTimeLimit) return;
        if (owner->spans.empty())
          owner->spans.reserve(static_cast<size_t>(__builtin_popcount(owner->channelMask)));
        owner->spans.push_back({static_cast<int32_t>(channel), begin, end});
      });
}
