// The part of a disk's check that concerns the recordings of one data directory. Only looks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "apps/recorder/check/Checker.h"

namespace recorder {

struct CheckedRecording {
  uint32_t start;  // seconds since the epoch
  uint32_t end;
  std::string path;
};

using Blame = std::function<void(Fault fault, const std::string& path, const std::string& what)>;

// The regular files `names` of a data directory, whose path ends with "/". Completed recordings go to
// `completed`.
void CheckRecordings(const std::string& directory, const std::vector<std::string>& names, const Blame& blame,
                     std::vector<CheckedRecording>* completed);

// The search database of the directory against the same names; `others` are its entries that are called
// search.fdb and something.
void CheckSearchDb(const std::string& directory, const std::vector<std::string>& names,
                   const std::vector<std::string>& others, const Blame& blame);

}  // namespace recorder
