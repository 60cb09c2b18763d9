// The names of record files and data directories: one formatter per kind of name, one parser. No disk access.
//
//   record file  = in-progress | completed
//   in-progress  = START "_00000000" ".imf"
//   completed    = START "_" END "_cm" MASK ".imf"
//   START, END   = seconds since the epoch, MASK = bit n for channel n;
//                  all in lower-case hexadecimal without zero fill, 32 bits
//   data dir     = "data_" N        (N decimal, zero-filled to 8 characters, more digits in full)
//
//   5f5e1000_00000000.imf           started at 1600000000, still being written or never closed
//   5f5e1000_5f5e1258_cmf.imf       the same, ended at 1600000600, channels 0 to 3
//
// From July 1978 to February 2106 a time has exactly eight digits, so the order of names is the order of
// starts.
//
// Parsing is lenient on purpose: names come from disks that other tools have been at, and a recording is not
// given up for an odd name. Start is whatever number leads the name, end the number behind the first "_", mask
// the number behind the first "cm" (no hexadecimal digit is an "m"); the extension, widths and order are not
// looked at.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fmgr {

std::string InProgressName(uint32_t start);
std::string CompletedName(uint32_t start, uint32_t end, uint32_t mask);

// The name that a record of the driver stands for (an end of 0: in progress), without memory of its own from
// the heap.
class RecordName {
 public:
  RecordName(uint32_t start, uint32_t end, uint32_t mask);
  std::string_view Text() const { return {mText, mSize}; }

 private:
  char mText[40];
  size_t mSize;
};

// A start time as it stands at the beginning of a name.
std::string StartPrefix(uint32_t start);
std::string DataDirectoryName(int index);

// The number at the beginning of a text, as scanf's "%x" reads it; 0 when there is none.
uint32_t ScanHex(const char* text);

// Start of the file at `path`: of its last component, 0 when it has none.
int PathToStartTime(const std::string& path);

}  // namespace fmgr
