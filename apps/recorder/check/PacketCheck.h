// The part of a disk's check that reads every packet. Only looks, but takes as long as reading the disk.
#pragma once

#include <cstdint>
#include <functional>

#include "apps/recorder/check/Checker.h"

namespace recorder {

struct PacketTotals {
  int64_t recordings = 0;  // read so far
  int64_t of = 0;
  int64_t packets = 0;
  uint64_t bytes = 0;  // of them
};

// Reads the packets of all completed recordings of the report's disk, and adds a finding for each recording
// with damage: where in the file, and whose packets of what time are lost. `goOn` is called before each
// recording and every few packets; when it answers false, that is the end, with what was found so far. What is
// recycled meanwhile is passed over.
PacketTotals CheckPackets(DiskReport* report, const std::function<bool(const PacketTotals&)>& goOn);

}  // namespace recorder
