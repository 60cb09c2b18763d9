// Looks a disk over before the file manager sees it: finds what would mislead it, since it takes names at their
// word. Only looks, opens nothing but directories of the disk's own file system (and a record file that claims
// to lie ahead of the clock), follows no links, and never blocks on a fifo. Every directory is listed once;
// only pool entries and search databases are looked at one by one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/recorder/disks/DiskManifest.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

struct OddEntry {
  std::string path;
  std::string what;  // what is odd about it, as "is a fifo"
};

struct Inspection {
  // Why the disk can't be used as it is now: its directory or its pool can't be listed to the end, lies on
  // another file system, or takes no changes. Empty when it can; what follows is sound only then.
  std::string unusable;
  bool isBrokenOff = false;  // a listing ended with an error
  // Means something to the file manager and nothing to anybody: to be set aside.
  std::vector<OddEntry> odd;
  // Data directories that can't be read or are not the disk's own: to be left out of the file manager's lists.
  std::vector<OddEntry> closed;
  // Pool entries and data directories that can be read and can't be moved or changed: a recorder passes over
  // them.
  std::vector<OddEntry> fixed;

  std::vector<std::string> unfinished;  // paths of record files in progress, or never completed
  int64_t pool = 0;                     // entries of the pool that the file manager would list, odd ones too
  int64_t setAside = 0;                 // entries set aside before
  int64_t files = 0;                    // record files in their places, set aside ones among them
  std::optional<DiskManifest> manifest;

  // Record files that were laid down and are in none of their places; 0 when that can't be told.
  int64_t Missing() const;
};

// `now` in seconds since the epoch: no recording starts more than a day ahead of it, unless its header says the
// same as its name: then a clock was ahead.
Inspection Inspect(const std::string& disk, int64_t now);

// Why a directory takes no changes from this process although its file system does, as "is immutable"; empty
// when it takes them, and when it can't be opened. `path` may end with a slash.
std::string WhyFixed(const std::string& path);
bool IsImmutable(const std::string& path);
// Whether a data directory's file only looks like a recording in progress, as "face.imf" does, whose name begins
// with a number: it is not called as the library would, and holds no recording. It would be recycled.
bool IsForeignRecord(const std::string& path, const RecordName& name);
// Why a data directory's entry called search.fdb and something is not the recorder's, as "is a fifo"; empty
// when it may be. A second name may be a recording's.
std::string WhyNoDatabase(const std::string& path);

// N of a pool file's name, at least eight digits and ".imf"; -1 for any other name.
int64_t PoolNumber(const std::string& name);
// "data_" and eight digits, or more where the number needs them.
std::string DataDirectoryName(int index);
// Whether a data directory's number can be counted on from: new ones get numbers above all others.
bool IsUsualNumber(int index);

}  // namespace recorder
