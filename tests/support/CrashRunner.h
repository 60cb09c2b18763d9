// Runs a program under ptrace, counts the system calls by which it changes what lies below a directory, and
// kills it with all its children right before one of them: as a power cut would, short of what the disk's own
// cache loses.
#pragma once

#include <string>
#include <vector>

struct CrashPlan {
  std::string root;   // changes below it count; an absolute path
  size_t killAt = 0;  // 1: at the first change; 0: never
  size_t failAt = 0;  // this write of a packet into a record file (counted from 1) gets EIO; 0: none
};

struct CrashRun {
  bool killed = false;
  int status = -1;    // exit status when it was not killed; -1: it ended by a signal
  std::string out;    // what it wrote to standard output
  std::string error;  // and to standard error
  // One a change, in order, as "rename /disk/a/imf_free/00000000.imf"; the change that it was killed at is the
  // last.
  std::vector<std::string> changes;
};

// Why no program can be traced here; empty when one can.
std::string WhyNotTraceable();

// `arguments` starts with the program's path.
CrashRun RunAndCrash(const std::vector<std::string>& arguments, const CrashPlan& plan);
