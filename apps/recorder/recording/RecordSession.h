// Recording from start to stop: takes the disks, repairs what an earlier run left behind, and puts packets from
// the source into segments.
#pragma once

#include <string>
#include <vector>

#include "apps/recorder/disks/Refusals.h"

namespace recorder {

// As given; what they mean is found out, or refused, by Record().
struct RecordOptions {
  std::vector<std::string> inputs;
  std::vector<std::string> disks;
  int segment = 60;
  int checkpoint = 2;
  std::string keep = "0";
  int retry = 60;
  bool trustClock = false;
  bool overwrite = true;
  std::string clock = "wall";
  std::string start;
  bool audio = true;
  bool standby = false;
  int inputTimeout = 10;    // seconds
  std::string cameraClock;  // channels, or "all"
  std::string onEvent;      // a command line, without a shell
};

// Why a recording with these options would be refused, as far as that is known without a disk.
Refusal CheckRecord(const RecordOptions& options, const std::string& root);

// Records until every input has ended or a signal stops it. Returns the exit status; every failure has said a
// line on standard error.
int Record(const RecordOptions& options, const std::string& root);

}  // namespace recorder
