// The part of a disk's check that concerns the recordings of one data directory. Only looks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/recorder/check/Finding.h"

namespace recorder {

struct CheckedRecording {
  uint32_t start;  // seconds since the epoch
  uint32_t end;
  std::string path;
};

// The regular files `names` of a data directory, whose path ends with "/". Completed recordings go to
// `completed`.
void CheckRecordings(const std::string& directory, const std::vector<std::string>& names, const Blame& blame,
                     std::vector<CheckedRecording>* completed);

}  // namespace recorder
