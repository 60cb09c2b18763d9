// First stage of preparing a disk: the directory in which the record files are laid down.
#pragma once

#include <string>

#include "ProgressIndicator.h"
#include "fmgr/FmgrRepository.h"

// `files` holds full paths.
class FMGR_EXPORT FmgrPreAllocRepository : public FmgrRepository {
 public:
  // Touches nothing on disk. A mount with a trailing slash gives a path with a double one, which the file
  // system takes as one.
  explicit FmgrPreAllocRepository(std::string mount);
  ~FmgrPreAllocRepository() override;

  // Creates a file of mode 0600 and reserves `size` bytes for it (nothing is written). 1 done; 0 with a line
  // logged, and a file that could be created but not reserved stays, empty or partly reserved.
  unsigned CreateFile(std::string path, unsigned size);

  // Makes the directory and `count` files of `sizeMiB` MiB each. 1 when all were made. 0 with a line logged:
  // the directory was there before (then nothing was touched), or could not be made, or a file failed; files
  // made so far stay on disk and in `files`. `indicator` may be null.
  unsigned Make(unsigned sizeMiB, unsigned count, ProgressIndicator* indicator);

  // The directory, with a slash at its end.
  std::string path;
};
