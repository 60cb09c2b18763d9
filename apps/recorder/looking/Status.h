// What is on each disk, in numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/recorder/disks/DiskState.h"
#include "apps/recorder/disks/Disks.h"

namespace recorder {

struct DiskStatus {
  std::string name;
  std::string path;
  int free = 0;
  int used = 0;
  int quarantined = 0;
  uint64_t fileSize = 0;
  uint64_t quarantinedBytes = 0;
  int first = 0;  // seconds since the epoch, 0: nothing recorded
  int last = 0;
  bool writing = false;
  DiskState state;  // by the recorder that is at work; used when there is none
  int64_t setAside = 0;       // entries set aside, and what a recorder passes over
  std::vector<OddEntry> odd;  // what it passes over, or sets aside at its next start
  int64_t missing = 0;        // laid-down files that are not there; 0 also when nobody noted how many there were
};

// What all disks together have left.
struct Capacity {
  int remaining = 0;                // MiB in free files
  std::optional<double> hoursLeft;  // until they are used up; unknown when nothing was recorded
};

// `disks` are open. The present rate is that at which the latest hours of recording used up files: a file
// counts in full, however much of it is in use.
Capacity MeasureCapacity(const Disks& disks);
// The disks that aren't used: those that are missing, and while `recording` those that the recorder has set
// aside or misses.
std::vector<DiskState> UnusedDisks(const Disks& disks, bool recording);
DiskStatus Examine(const Disks& disks, const Disk& disk, FmgrRepositoryGroup& group);
// The disk of the newest file in progress. Between two segments there is none, and the disk of the newest data
// directory is the one that the recorder goes on with, unless it has given that disk up.
const FmgrRepositoryGroup* BeingWritten(const Disks& disks);

}  // namespace recorder
