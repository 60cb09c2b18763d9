// The pool of unused record files of one disk: filled once when the disk is prepared, then a first-in first-out
// queue of files that recordings take and give back.
#pragma once

#include <memory>
#include <string>

#include "ProgressIndicator.h"
#include "fmgr/FmgrRepository.h"

class FmgrPreAllocRepository;

// `files` holds bare names in pool order: ascending by name as found at construction, then in the order of
// pushing. The directory is read once, by the constructor; afterwards only Pop and Push change the list, and
// the application, which may take entries out or add some at either end.
class FMGR_EXPORT FmgrFreeRepository : public FmgrRepository {
 public:
  // Lists MOUNT/imf_free/. A directory that can't be listed is logged and leaves an empty pool.
  explicit FmgrFreeRepository(std::string mount);
  ~FmgrFreeRepository() override;

  // Appends the directory's "*.imf" names to the list. 1 done, also for none; 0 with a line logged.
  int ListUp();
  int GetFileCount() const override;
  // The number that leads the last entry's name, 0 for an empty pool.
  int GetLastFreeFileIndex();
  std::string FileNameToPath(const std::string& name);
  // Bytes of the pool's first file, which stands for all; 0 for an empty pool.
  int GetFileSize() const;

  // Takes the first entry off the list and returns its full path; the file itself is not touched.
  // Precondition: GetFileCount() is above 0.
  std::string Pop();

  // Renames the file at `source` (on the same disk) into the pool under the first index after the last one's
  // that neither the list nor the directory has, and appends it. Nothing that exists is replaced. 1 done; 0
  // with a line logged: the file and the list are as they were.
  int Push(std::string& source);

  // Makes the directory and hard-links every pre-allocated file into it, numbered from 0. 1 done; 0 with a line
  // logged when the directory was there before or can't be made. The pre-allocated names stay, this object's
  // list stays empty: build a new object to use the pool. A single failed link leaves a gap and is not
  // reported.
  int Make(FmgrPreAllocRepository& prealloc, ProgressIndicator* indicator);

 private:
  struct Pool;
  void NoteList(bool isNew);
  bool IsListAsNoted() const;

  std::unique_ptr<Pool> mPool;
  // A group holds its pool by value, and binaries know what lies behind it: this takes as much room as it
  // always has.
  [[maybe_unused]] char mReserved[sizeof(std::string) - sizeof(void*)] = {};
};
