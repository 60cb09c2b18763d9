// What preparing a disk is going to lay down: found out from the options and the room that there is, before
// anything is touched.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/recorder/disks/Refusals.h"
#include "apps/recorder/disks/Room.h"

namespace recorder {

struct PrepareOptions {
  std::string disk;              // its name
  std::string size;              // of one record file, as 64M; or else
  std::string bitRate;           // of all channels together, as 8M, which gives a size for segments of
  int segment = 60;              // seconds
  std::optional<int64_t> count;  // of files; or else
  bool fill = false;             // as many as fit
  std::string reserve;           // kept free of record files, as 1G; empty: 1 %, at least 64 MiB
  bool onSystemDisk = false;
  bool resume = false;  // what was cut off
  bool undo = false;    // what was cut off
};

struct PreparationPlan {
  std::string root;      // absolute
  std::string path;      // the disk's directory
  std::string prealloc;  // where files are laid down first
  std::string pool;
  uint64_t size = 0;  // bytes of one file
  int64_t count = 0;
  uint64_t reserve = 0;  // bytes of the file that is laid down to be given up
  int64_t seconds = 0;   // that all files hold in segments of the length that was asked for; 0: none was
};

// Where: the first four members. Resuming and undoing need no more.
Refusal PlanPlace(const PrepareOptions& options, const std::string& root, PreparationPlan* plan);
// What: the others, and that there is room for it. A refusal tells what is free and what would fit.
Refusal PlanFiles(const PrepareOptions& options, const Room& room, PreparationPlan* plan);

// How many files of `size` bytes there is room for beside `reserve` bytes.
int64_t CountThatFits(const Room& room, uint64_t size, uint64_t reserve);
// "33 hours", "12.5 days".
std::string FormatSpan(int64_t seconds);

}  // namespace recorder
