// What the library is held against: the same bookkeeping and the same questions in an SQLite database, as a
// recorder would use it that keeps its list of files there. Statements are prepared, indexes fit, the cache
// holds everything.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <list>
#include <memory>
#include <string>

#include "SearchDb.h"

struct sqlite3;
struct sqlite3_stmt;

namespace bench {

class Statement {
 public:
  Statement(sqlite3* db, const char* text);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(std::initializer_list<int64_t> values);
  Statement& Bind(int number, const std::string& text);
  // True: there is a row. False: done, and ready to be run again. Anything else ends the program.
  bool Step();
  void Reset();
  void Run() {
    while (Step()) {
    }
  }
  int64_t Number(int column) const;
  const char* Text(int column) const;

 private:
  sqlite3* mDb;
  sqlite3_stmt* mStatement = nullptr;
};

class Database {
 public:
  // A new one at the path, with a write-ahead log and synchronous=NORMAL.
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void Execute(const char* statements) const;
  sqlite3* Handle() const { return mDb; }

 private:
  const std::string mPath;
  sqlite3* mDb = nullptr;
};

// The books of a loop recorder: which file is free, which is recorded to, what is in the others. A cycle is
// three transactions, at the three moments at which the books must be right should the power go: the oldest is
// recycled, a free one is handed out, the recording is completed.
class Bookkeeping {
 public:
  // `files` recordings.
  Bookkeeping(const std::string& path, int files);
  void Cycle();

 private:
  Database mDb;
  int64_t mNow;
  std::unique_ptr<Statement> mBegin, mCommit, mOldest, mFree, mTakeFree, mTake, mComplete;
};

// The recordings of all disks in one table, and when each channel has pictures in another one.
class Questions {
 public:
  explicit Questions(const std::string& path);
  // Empties the tables. Add() is to be called for each recording then, in ascending order, and Done() behind
  // it.
  void Clear();
  void Add(uint32_t start, uint32_t end, uint32_t mask, const std::string& path);
  // Adds spans of `channels` channels, all through each recording.
  void Done(int channels);

  bool FilePath(uint32_t time, std::string* path);
  bool Next(uint32_t start, std::string* path);
  bool Previous(uint32_t start, std::string* path);
  void TimeRange(int* start, int* end);
  void List(int64_t from, int64_t to, std::list<std::string>* paths);
  void Chart(TimeSearchChart* chart);
  bool Month(int year, int month, int* foundYear, int* foundMonth);

 private:
  Database mDb;
  int64_t mLongest = 0;  // seconds of a recording
  std::unique_ptr<Statement> mAdd, mExact, mCovering, mNext, mPrevious, mFirst, mLast, mList, mChart, mSpans;
};

// Fills the search database of a data directory in one transaction, as the recorder does one by one.
void MakeSearchDatabase(const std::string& directory, uint32_t start, int count, int seconds, int channels);

}  // namespace bench
