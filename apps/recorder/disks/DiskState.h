// What a recorder makes of each of its disks, told to other processes in ROOT/.recorder.state: a line a disk
// that isn't used, and what else has to outlive the process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/recorder/disks/Disks.h"

namespace recorder {

struct DiskState {
  enum Use {
    kUsed,
    kMissing,  // nothing is at its path
    kAside,    // it is there, and does not do what a disk has to
  };
  Disk disk;
  Use use = kUsed;
  std::string what;   // what it couldn't do, and the system's error; empty while it is used
  int64_t since = 0;  // seconds since the epoch
};

// "missing" and the like; one word.
const char* UseName(DiskState::Use use);

struct RecorderState {
  std::vector<DiskState> disks;  // those that aren't used
  int64_t clockDoubted = 0;      // seconds since the epoch, by the clock that can't be believed; 0: it can
};

// Replaces the file as a whole. False: errno tells why; it says what it said before.
bool WriteState(const std::string& root, const RecorderState& state);
// Empty when there is no file that can be read. What it says of disks counts only while a recorder holds the
// lock of the root directory.
RecorderState ReadState(const std::string& root);

}  // namespace recorder
