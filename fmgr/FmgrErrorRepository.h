// The quarantine of one disk: damaged record files, kept under their names and never handed out again.
#pragma once

#include <string>

#include "fmgr/FmgrRepository.h"

// `files` holds bare names. The directory is missing on a disk until the first file is quarantined.
class FMGR_EXPORT FmgrErrorRepository : public FmgrRepository {
 public:
  // Lists MOUNT/imf_error/. A directory that can't be listed is logged and leaves an empty list.
  explicit FmgrErrorRepository(std::string mount);
  ~FmgrErrorRepository() override;

  // Appends the directory's "*.imf" names to the list. 1 done, also for a missing directory; 0 with a line
  // logged.
  int ListUp();
  int GetFileCount() const override;
  std::string FileNameToPath(const std::string& name);

  // Takes the first entry off the list and returns its full path; the file itself is not touched.
  // Precondition: GetFileCount() is above 0.
  std::string Pop();

  // Renames the file at `source` into the quarantine, making the directory when it is missing. When its name is
  // taken there, a number is appended to it. 1 done; 0 with a line logged when the directory can't be made. A
  // failed rename is not detected: 1 is returned, and the list names a file that is not there.
  int Push(std::string& source);

 private:
  std::string mPath;  // with a slash at its end
};
