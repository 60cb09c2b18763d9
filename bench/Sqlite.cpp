#include "bench/Sqlite.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "bench/Stage.h"
#include "platform/host/searchdb/SearchDbFile.h"

namespace bench {

namespace {

constexpr int64_t kMicros = 1000000;
constexpr int64_t kHeapLimit = int64_t{4} << 30;

[[noreturn]] void StopOf(sqlite3* db) {
  errno = 0;
  Stop(db != nullptr ? sqlite3_errmsg(db) : "SQLite");
}

}  // namespace

Statement::Statement(sqlite3* db, const char* text) : mDb(db) {
  if (sqlite3_prepare_v3(db, text, -1, SQLITE_PREPARE_PERSISTENT, &mStatement, nullptr) != SQLITE_OK)
    StopOf(db);
}

Statement::~Statement() { sqlite3_finalize(mStatement); }

Statement& Statement::Bind(std::initializer_list<int64_t> values) {
  int number = 0;
  for (const int64_t value : values) sqlite3_bind_int64(mStatement, ++number, value);
  return *this;
}

Statement& Statement::Bind(int number, const std::string& text) {
  sqlite3_bind_text(mStatement, number, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  return *this;
}

bool Statement::Step() {
  const int result = sqlite3_step(mStatement);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) StopOf(mDb);
  sqlite3_reset(mStatement);
  return false;
}

void Statement::Reset() { sqlite3_reset(mStatement); }

int64_t Statement::Number(int column) const { return sqlite3_column_int64(mStatement, column); }

const char* Statement::Text(int column) const {
  return reinterpret_cast<const char*>(sqlite3_column_text(mStatement, column));
}

Database::Database(const std::string& path) : mPath(path) {
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((path + suffix).c_str());
  // The host's readers set a limit that is small for a million recordings, but keep one that is there already.
  sqlite3_hard_heap_limit64(kHeapLimit);
  if (sqlite3_open(path.c_str(), &mDb) != SQLITE_OK) StopOf(mDb);
  Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-1000000");
}

Database::~Database() {
  sqlite3_close(mDb);
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((mPath + suffix).c_str());
}

void Database::Execute(const char* statements) const {
  if (sqlite3_exec(mDb, statements, nullptr, nullptr, nullptr) != SQLITE_OK) StopOf(mDb);
}

Bookkeeping::Bookkeeping(const std::string& path, int files) : mDb(path), mNow(1000000000) {
  // state: 0 free, 1 recorded to, 2 complete
  mDb.Execute(
      "CREATE TABLE file(id INTEGER PRIMARY KEY, path TEXT, state INTEGER, start INTEGER, end INTEGER, mask "
      "INTEGER);"
      "BEGIN");
  Statement add(mDb.Handle(), "INSERT INTO file VALUES(?1, ?5, 2, ?2, ?3, ?4)");
  for (int i = 0; i < files; ++i, mNow += 60) {
    add.Bind({i, mNow, mNow + 60, 0xf}).Bind(5, "/rec/disk/a/" + std::to_string(i) + ".imf").Run();
  }
  mDb.Execute("COMMIT; CREATE INDEX by_state ON file(state, start); ANALYZE");
  const auto prepare = [this](const char* text) { return std::make_unique<Statement>(mDb.Handle(), text); };
  mBegin = prepare("BEGIN IMMEDIATE");
  mCommit = prepare("COMMIT");
  mOldest = prepare("SELECT id, path FROM file WHERE state = 2 ORDER BY start LIMIT 1");
  mFree = prepare("SELECT id, path FROM file WHERE state = 0 ORDER BY start LIMIT 1");
  mTakeFree = prepare("UPDATE file SET state = 0 WHERE id = ?1");
  mTake = prepare("UPDATE file SET state = 1, start = ?2, end = 0, mask = 0 WHERE id = ?1");
  mComplete = prepare("UPDATE file SET state = 2, end = ?2, mask = ?3 WHERE id = ?1");
}

void Bookkeeping::Cycle() {
  mBegin->Run();
  if (!mOldest->Step()) Stop("no oldest recording");
  const int64_t oldest = mOldest->Number(0);
  mOldest->Reset();
  mTakeFree->Bind({oldest}).Run();
  mCommit->Run();

  mBegin->Run();
  if (!mFree->Step()) Stop("no free file");
  const int64_t taken = mFree->Number(0);
  mFree->Reset();
  mTake->Bind({taken, mNow}).Run();
  mCommit->Run();

  mComplete->Bind({taken, mNow + 60, 0xf}).Run();
  mNow += 60;
}

Questions::Questions(const std::string& path) : mDb(path) {
  mDb.Execute(
      "CREATE TABLE recording(start INTEGER PRIMARY KEY, end INTEGER, mask INTEGER, path TEXT);"
      "CREATE TABLE span(start INTEGER, channel INTEGER, begin INTEGER, end INTEGER,"
      " PRIMARY KEY(start, channel, begin)) WITHOUT ROWID");
  mAdd = std::make_unique<Statement>(mDb.Handle(), "INSERT INTO recording VALUES(?1, ?2, ?3, ?4)");
}

void Questions::Clear() {
  mDb.Execute("DROP INDEX IF EXISTS by_end; DELETE FROM recording; DELETE FROM span; BEGIN");
}

void Questions::Add(uint32_t start, uint32_t end, uint32_t mask, const std::string& path) {
  mLongest = std::max<int64_t>(mLongest, end - start);
  mAdd->Bind({start, end, mask}).Bind(4, path).Run();
}

void Questions::Done(int channels) {
  std::string numbers = "(0)";
  for (int channel = 1; channel < channels; ++channel) numbers += ",(" + std::to_string(channel) + ")";
  mDb.Execute(
      ("WITH each(channel) AS (VALUES" + numbers +
       ") INSERT INTO span SELECT start, channel, start * 1000000, end * 1000000 FROM recording CROSS JOIN each"
       " ORDER BY start, channel;"
       "COMMIT; CREATE INDEX by_end ON recording(end); ANALYZE; PRAGMA wal_checkpoint(TRUNCATE)")
          .c_str());
  const auto prepare = [this](const char* text) { return std::make_unique<Statement>(mDb.Handle(), text); };
  mExact = prepare("SELECT path FROM recording WHERE start = ?1");
  mCovering = prepare("SELECT path, start FROM recording WHERE end >= ?1 ORDER BY end LIMIT 1");
  mNext = prepare("SELECT path FROM recording WHERE start > ?1 ORDER BY start LIMIT 1");
  mPrevious = prepare("SELECT path FROM recording WHERE start < ?1 ORDER BY start DESC LIMIT 1");
  mFirst = prepare("SELECT min(start) FROM recording");
  mLast = prepare("SELECT max(end) FROM recording");
  // No recording is longer than the longest, which spares the database all that began before.
  mList = prepare("SELECT path FROM recording WHERE start >= ?3 AND start < ?2 AND end >= ?1 ORDER BY start");
  mChart = prepare(
      "SELECT start, end, mask FROM recording WHERE start >= ?3 AND start <= ?2 AND end >= ?1 ORDER BY start");
  mSpans = prepare(
      "SELECT start, channel, begin, end FROM span WHERE start BETWEEN ?1 AND ?2 ORDER BY start, channel, "
      "begin");
}

bool Questions::FilePath(uint32_t time, std::string* path) {
  for (Statement* statement : {mExact.get(), mCovering.get()}) {
    if (!statement->Bind({time}).Step()) continue;
    *path = statement->Text(0);
    statement->Reset();
    return true;
  }
  return false;
}

bool Questions::Next(uint32_t start, std::string* path) {
  if (!mNext->Bind({start}).Step()) return false;
  *path = mNext->Text(0);
  mNext->Reset();
  return true;
}

bool Questions::Previous(uint32_t start, std::string* path) {
  if (!mPrevious->Bind({start}).Step()) return false;
  *path = mPrevious->Text(0);
  mPrevious->Reset();
  return true;
}

void Questions::TimeRange(int* start, int* end) {
  mFirst->Step();
  *start = static_cast<int>(mFirst->Number(0));
  mFirst->Reset();
  mLast->Step();
  *end = static_cast<int>(mLast->Number(0));
  mLast->Reset();
}

void Questions::List(int64_t from, int64_t to, std::list<std::string>* paths) {
  mList->Bind({from, to, from - mLongest});
  while (mList->Step()) paths->emplace_back(mList->Text(0));
}

void Questions::Chart(TimeSearchChart* chart) {
  mChart->Bind({chart->startTime, chart->endTime, chart->startTime - mLongest});
  while (mChart->Step()) {
    chart->recordings.push_back({static_cast<int32_t>(mChart->Number(0)),
                                 static_cast<int32_t>(mChart->Number(1)),
                                 static_cast<uint32_t>(mChart->Number(2))});
  }
  if (chart->recordings.empty()) return;
  auto owner = chart->recordings.begin();
  mSpans->Bind({owner->startTime, chart->recordings.back().startTime});
  while (mSpans->Step()) {
    while (owner->startTime < mSpans->Number(0)) ++owner;
    owner->spans.push_back({static_cast<int32_t>(mSpans->Number(1)), mSpans->Number(2), mSpans->Number(3)});
  }
}

bool Questions::Month(int year, int month, int* foundYear, int* foundMonth) {
  std::tm broken = {};
  broken.tm_year = year - 1900;
  broken.tm_mon = month;
  broken.tm_mday = 1;
  broken.tm_isdst = -1;
  const int64_t boundary = std::mktime(&broken);
  if (!mCovering->Bind({boundary}).Step()) return false;
  const time_t start = mCovering->Number(1);
  mCovering->Reset();
  if (start > boundary) localtime_r(&start, &broken);
  *foundYear = broken.tm_year + 1900;
  *foundMonth = broken.tm_mon + 1;
  return true;
}

void MakeSearchDatabase(const std::string& directory, uint32_t start, int count, int seconds, int channels) {
  sqlite3* db = nullptr;
  if (sqlite3_open((directory + searchdb::kName).c_str(), &db) != SQLITE_OK ||
      searchdb::Execute(db, "PRAGMA synchronous=OFF; BEGIN") != SQLITE_OK ||
      searchdb::CreateSchema(db) != SQLITE_OK) {
    StopOf(db);
  }
  {
    Statement add(db, "INSERT INTO recording VALUES(?1, ?2, ?3)");
    Statement addSpan(db, "INSERT INTO span VALUES(?1, ?2, ?3, ?4)");
    for (int i = 0; i < count; ++i, start += static_cast<uint32_t>(seconds)) {
      add.Bind({start, start + seconds, (1 << channels) - 1}).Run();
      for (int channel = 0; channel < channels; ++channel) {
        addSpan.Bind({start, channel, start * kMicros, (start + seconds) * kMicros}).Run();
      }
    }
  }
  if (searchdb::Execute(db, "COMMIT") != SQLITE_OK) StopOf(db);
  sqlite3_close(db);
}

}  // namespace bench
