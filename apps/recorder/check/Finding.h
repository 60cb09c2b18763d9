// What a check can find wrong with a disk.
#pragma once

#include <functional>
#include <string>

namespace recorder {

enum class Fault {
  kTwoPlaces,       // one file under two names
  kLeftover,        // in the pre-allocation directory, as preparing that was cut off leaves it
  kOutside,         // a laid-down file in none of the three places, or there under a name that nobody looks for
  kSize,            // a record file of another size than the disk's others
  kGap,             // the pool's numbers skip some, and for all that is known the disk has lost files
  kPoolName,        // in the pool under a name that is not a number
  kNoRegularFile,   // a directory or link in the place of a file, or the other way round
  kDirectoryName,   // a data directory that is not called "data_" and eight digits
  kTwoDirectories,  // two data directories of one number
  kUnreadable,      // a directory or file that can't be read
  kForeign,         // not the recorder's, in one of its directories
  kName,            // a name that is not a record file's
  kUnfinished,      // a recording that was never completed, or is being written
  kHeader,          // header and name disagree, or no recording is in the file
  kTwoStarts,       // two recordings of one data directory that begin in the same second
  kMissing,         // fewer laid-down files than preparing made
  kSetAside,        // moved out of the way by a recorder, and nothing that could be put back
  kImmovable,       // can't be renamed, as a recorder would have to
  kDamaged,         // packets that can't be read or are not as they were written
  kSearchDb,        // missing, damaged, marked as damaged, or out of step with the names
};

// One word, as in the output: "two-places".
const char* FaultName(Fault fault);

struct Finding {
  Fault fault;
  std::string path;
  std::string what;  // what is wrong, without the path
  bool isOfFile;     // the path is a laid-down file's
};

using Blame = std::function<void(Fault fault, const std::string& path, const std::string& what)>;

}  // namespace recorder
