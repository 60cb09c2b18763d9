// A file that appears under its name only when it is complete.
#pragma once

#include <string>

#include "apps/recorder/disks/Disks.h"

namespace recorder {

class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();  // removes what was not kept
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Makes an empty file under a temporary name in the directory of `path`. Refuses a name that is taken, unless
  // `force`; one that stands for no regular file; and one on the recorder's own disks, which have no room to
  // spare.
  Refusal Create(const std::string& path, bool force, const Disks& disks);

  const std::string& Path() const { return mPath; }
  const std::string& TemporaryPath() const { return mTemporary; }

  // Makes the file durable and gives it its name.
  Refusal Keep();

 private:
  std::string mPath;
  std::string mTemporary;  // empty when there is none
  bool mForce = false;
};

}  // namespace recorder
