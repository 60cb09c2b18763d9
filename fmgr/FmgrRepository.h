// Common base of every directory of record files on a disk.
#pragma once

#include <list>
#include <string>

#include "fmgr/Export.h"

// Threads: none of the library's classes takes a lock or starts a thread; an object is used by one caller at a
// time.
class FMGR_EXPORT FmgrRepository {
 public:
  FmgrRepository() = default;
  FmgrRepository(const FmgrRepository&) = delete;
  FmgrRepository& operator=(const FmgrRepository&) = delete;

  // The first four slots of the dispatch table, in this order, are relied on by binaries built against the
  // library.
  virtual ~FmgrRepository();
  // Number of record files held.
  virtual int GetFileCount() const;
  // Whether a bare name may be a record file's: 1 or 0. The base knows no names and answers 0.
  virtual unsigned IsValidFileName(std::string name);

  // 1 when the path is a directory (through symbolic links too), else 0; a path that can't be examined counts
  // as 0.
  static unsigned IsExistDir(std::string& path);
  // Makes one directory with mode 0755. 1 made; 0 with a line logged, nothing made: an existing directory is a
  // failure too.
  static unsigned CreateDir(std::string& path);
  // What stands behind the last "/"; the whole text when there is none, empty when it ends with "/".
  static std::string PathToFileName(std::string path);
  // Size in bytes; 0 for a file that can't be opened. Record files are below 2 GiB, so a signed 32-bit count
  // serves.
  static int GetFileSize(const std::string& path);
  // "00000007.imf" for 7: a pool file's name, its index zero-filled to eight characters, more digits in full.
  static std::string MakeFileName(int index);

  // The files held, in insertion order. What an entry is (path or bare name) is the derived class's decision.
  std::list<std::string> files;
};
