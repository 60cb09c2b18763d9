// The names of record files and data directories, as the workstation's components read them.
#pragma once

#include <cstdint>
#include <string>

struct RecordName {
  uint32_t startTime;    // seconds since the epoch
  uint32_t endTime;      // 0: in progress
  uint32_t channelMask;  // 0 for a file in progress
};

// Reads a bare file name START_00000000.imf or START_END_cmMASK.imf, numbers in lower-case hexadecimal. Lenient
// in the way the library is: what counts is that the name starts with a start time other than 0 in the library's
// own spelling (lower case, no zero fill, at most 32 bits, not followed by a further hexadecimal digit of either
// case), and ends with ".imf". Then the library finds the file again by its start time; end and mask are 0 where
// the name does not hold them. False for any other name, and for times that a recording cannot have: a start from
// 2147483647 (January 2038) on, or an end behind it. `out` is untouched then.
bool ParseRecordName(const std::string& name, RecordName* out);

// The N of a bare directory name "data_N" (decimal, zero fill not required), -1 for any other name.
int ParseDataDirectoryName(const std::string& name);
