// Runs a program under ptrace and meddles with the system calls that it makes below a directory: kills it with
// all its children right before one of them, as a power cut would, short of what the disk's own cache loses; or
// lets one fail, or all from one on, as a disk would that is worn out, full or gone.
#pragma once

#include <cerrno>
#include <string>
#include <vector>

struct CrashPlan {
  std::string root;         // calls below it count; an absolute path
  size_t killAt = 0;        // 1: at the first change; 0: never
  size_t failPacketAt = 0;  // this write of a packet into a record file (counted from 1) gets EIO; 0: none

  // Calls that read count here as well as those that change something; a call that is made to fail is not made.
  bool countAll = false;
  size_t failAt = 0;     // 1: the first call gets `error`; 0: none
  size_t failCalls = 1;  // how many from there on; those behind the first only on the same disk
  int error = EIO;
  unsigned seconds = 120;  // the program is killed after this time
};

struct CrashRun {
  bool killed = false;
  bool timedOut = false;
  int status = -1;    // exit status when it was not killed; -1: it ended by a signal
  std::string out;    // what it wrote to standard output
  std::string error;  // and to standard error
  // One a change, in order, as "rename /disk/a/imf_free/00000000.imf"; the change that it was killed at is the
  // last.
  std::vector<std::string> changes;
  std::vector<std::string> calls;  // the same of every call; only when they are counted
};

// Why no program can be traced here, or none of its calls be made to fail (`fails`); empty when one can.
std::string WhyNotTraceable(bool fails);

// `arguments` starts with the program's path.
CrashRun RunAndCrash(const std::vector<std::string>& arguments, const CrashPlan& plan);
