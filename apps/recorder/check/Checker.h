// Holds one disk against what every disk keeps to at all times, also after a power cut:
//
//   1. Every laid-down file is in exactly one place: the free pool, one data directory, or the error pool.
//   2. A file's name is the truth about it, and the search databases say what the names say.
//   3. Every completed recording is there under its name.
//
// Only looks: nothing is written, locked, or taken from the file list cache, so it may run beside a recorder.
// What a recorder is moving at that moment may show up as a fault then; looking again tells.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/recorder/check/Finding.h"

namespace recorder {

struct DiskReport {
  std::string path;
  bool missing = false;   // not a single record file nor anything else of a disk: an empty mount point
  uint64_t fileSize = 0;  // bytes of a record file: the size that most of them have
  int64_t free = 0;       // laid-down files by place
  int64_t recorded = 0;   // in data directories, the unfinished ones among them
  int64_t quarantined = 0;
  int64_t outside = 0;  // leftovers of preparing among them
  std::vector<Finding> findings;
  std::vector<std::string> notes;  // worth knowing and no fault

  int64_t Files() const { return free + recorded + quarantined + outside; }
  // How many files something is wrong with. Leftovers of preparing don't count: they are repaired without
  // touching what is recorded.
  int64_t Wrong() const;
  bool IsMostlyWrong() const { return Wrong() * 2 > Files(); }
};

// `disk` without a slash at its end.
DiskReport CheckDisk(const std::string& disk);

}  // namespace recorder
