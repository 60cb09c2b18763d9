// Where a data directory's list of record files is kept: in the file list cache driver, or in memory. A data
// repository owns one of the two and delegates to it whatever differs between them.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "Flc.h"

class FmgrDataRepository;

namespace fmgr {

class PathOrder;

// Which file of several directories serves a time: for mode > 0 the one that ends first, else the one that ends
// last; of equal ends the first, or the last, that was offered.
class FileChoice {
 public:
  explicit FileChoice(int mode) : mMode(mode) {}
  bool Takes(int end) const { return !mHasAny || (mMode > 0 ? end < mEnd : end >= mEnd); }
  void Take(int end) {
    mEnd = end;
    mHasAny = true;
  }
  bool HasAny() const { return mHasAny; }

 private:
  int mMode;
  int mEnd = 0;
  bool mHasAny = false;
};

class RecordList {
 public:
  virtual ~RecordList() = default;

  virtual int Count() const = 0;  // -1: the driver failed
  virtual bool IsEmpty() const = 0;

  // Names.
  virtual std::string Oldest() const = 0;
  virtual std::string Newest() const = 0;
  // What the oldest name says.
  virtual int OldestStart() const = 0;
  virtual int OldestEnd() const = 0;
  // The end that the newest name says; unless that is a time, `name` gets the name too.
  virtual int NewestEnd(std::string& name) const = 0;
  // End of the file before the newest of `count` files (2 or more), 0 when unknown.
  virtual int EndBeforeNewest(int count) const = 0;

  virtual void Add(const std::string& name) = 0;
  virtual void Rename(const std::string& oldName, const std::string& newName) = 0;
  virtual void DropOldest() = 0;
  virtual void DropNewest() = 0;
  // Drops the oldest entry when its file is due for removal at `limit`, else answers false.
  virtual bool DropOldestBefore(long limit) = 0;

  // The questions of the same names of FmgrDataRepository.
  virtual bool NextFilePath(const std::string& path, std::string& next) const = 0;
  virtual bool PrevFilePath(const std::string& path, std::string& prev) const = 0;
  // With a choice, `path` may be left alone for a file that it doesn't take.
  virtual int FilePath(int time, std::string& path, int mode, const FileChoice* choice) const = 0;
  // `from` and `to` in seconds since the epoch.
  virtual int Collect(PathOrder& paths, int from, int to, uint32_t channelMask) const = 0;
};

// The driver's list (cache mode). Within one call of the file manager its answers stand (OneCall.h).
class DriverRecordList : public RecordList {
 public:
  // `owner` outlives the list; `disk` is what its GetDiskName() answers.
  DriverRecordList(const FmgrDataRepository& owner, std::string disk) : mOwner(owner), mDisk(std::move(disk)) {}

  int Count() const override;
  bool IsEmpty() const override { return Count() == 0; }
  std::string Oldest() const override;
  std::string Newest() const override;
  int OldestStart() const override;
  int OldestEnd() const override;
  int NewestEnd(std::string& name) const override;
  int EndBeforeNewest(int count) const override;
  void Add(const std::string& name) override;
  void Rename(const std::string& oldName, const std::string& newName) override;
  void DropOldest() override;
  void DropNewest() override;
  bool DropOldestBefore(long limit) override;
  bool NextFilePath(const std::string& path, std::string& next) const override;
  bool PrevFilePath(const std::string& path, std::string& prev) const override;
  int FilePath(int time, std::string& path, int mode, const FileChoice* choice) const override;
  int Collect(PathOrder& paths, int from, int to, uint32_t channelMask) const override;

 private:
  // Null for a disk without a name, which can't be asked about: the driver's wrappers refuse it with a line.
  const char* Disk() const;
  int AskOldest(flc_file_info_param_t& file) const;
  int AskNewest(flc_file_info_param_t& file) const;
  flc_file_info_param_t KnownOldest() const;
  flc_file_info_param_t KnownNewest() const;
  void SetPath(std::string& path, const flc_file_info_param_t& answer) const;
  void Remove(uint32_t start);

  // What the driver has answered in one call.
  struct Answers {
    uint64_t call = 0;  // 0: none
    bool hasCount = false;
    bool hasOldest = false;
    bool hasNewest = false;
    int count = 0;
    flc_file_info_param_t oldest{};
    flc_file_info_param_t newest{};
  };
  // Those of the call that goes on; null when there is none, and nothing is kept then.
  Answers* Known() const;

  const FmgrDataRepository& mOwner;
  const std::string mDisk;
  mutable Answers mKnown;
};

// Bare names, oldest first (list mode).
class MemoryRecordList : public RecordList {
 public:
  // Both outlive the list.
  MemoryRecordList(const FmgrDataRepository& owner, std::list<std::string>& names)
      : mOwner(owner), mNames(names) {}

  int Count() const override { return static_cast<int>(mNames.size()); }
  bool IsEmpty() const override { return mNames.empty(); }
  std::string Oldest() const override { return mNames.empty() ? "" : mNames.front(); }
  std::string Newest() const override { return mNames.empty() ? "" : mNames.back(); }
  int OldestStart() const override;
  int OldestEnd() const override;
  int NewestEnd(std::string& name) const override;
  int EndBeforeNewest(int count) const override;
  void Add(const std::string& name) override { mNames.push_back(name); }
  void Rename(const std::string& oldName, const std::string& newName) override;
  void DropOldest() override;
  void DropNewest() override;
  bool DropOldestBefore(long limit) override;
  bool NextFilePath(const std::string& path, std::string& next) const override;
  bool PrevFilePath(const std::string& path, std::string& prev) const override;
  int FilePath(int time, std::string& path, int mode, const FileChoice* choice) const override;
  int Collect(PathOrder& paths, int from, int to, uint32_t channelMask) const override;

 private:
  std::list<std::string>::const_iterator FindStart(int start) const;

  const FmgrDataRepository& mOwner;
  std::list<std::string>& mNames;
};

// Opens the record file at `path` and asks it for its end time. False, and `end` untouched, when it is not a
// regular file or can't be opened.
bool ReadEndTime(const std::string& path, int& end);

}  // namespace fmgr
