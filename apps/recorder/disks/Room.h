// What there is to prepare a disk on: the file system at a path, and how much is free there.
#pragma once

#include <cstdint>
#include <string>

#include "apps/recorder/disks/Refusals.h"

namespace recorder {

struct Room {
  uint64_t total = 0;  // bytes of the file system
  uint64_t free = 0;   // bytes that anybody may still take
  int64_t files = -1;  // further files that it takes; -1: as many as there is room for
  bool isMountPoint = false;
  bool isSystem = false;       // it is the file system of "/"
  bool copiesOnWrite = false;  // writing to a laid-down file takes new blocks before it frees the old ones
};

// Of the directory `path`, or of the nearest one above it that exists. The refusal is of a path that leads
// nowhere, or to something that is not a directory.
Refusal LookAtRoom(const std::string& path, Room* room);

}  // namespace recorder
