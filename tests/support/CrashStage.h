// A root directory on which the recorder runs, fails, is killed and starts again, and what must hold
// afterwards.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/support/CrashRunner.h"

// Start times of the runs, in seconds since the epoch.
constexpr int kFillTime = 1700000000;  // of what is on the disks before
constexpr int kCrashTime = 1700001000;
constexpr int kSecondTime = 1700002000;
constexpr int kLastTime = 1700003000;

using Arguments = std::vector<std::string>;

// A root directory, and a copy of it to start over from. Both go with the object.
class Stage {
 public:
  Stage();
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  void Save() { Copy(mRoot, mCopy); }
  void Restore() { Copy(mCopy, mRoot); }

  const std::string& Root() const { return mRoot; }
  std::vector<std::string> Disks() const;
  // Two seconds a segment of two seconds, four pictures.
  std::string Input(int segments) const { return mRoot + "/in" + std::to_string(segments) + ".mp4"; }
  bool MakeInput(int segments) const;

  // Runs the recorder with `arguments`; the plan's root is this one.
  CrashRun Run(Arguments arguments, CrashPlan plan = {}) const;
  Arguments Prepare(const std::string& disk, int count) const;
  Arguments Record(int segments, int start) const;

  // Two disks, all of whose files hold a recording.
  void BuildFull();
  // A recording cut off in its middle, a search database that is to be rebuilt, and one that lacks a recording.
  void BuildCutOff();

 private:
  static void Copy(const std::string& from, const std::string& to);

  std::string mRoot;
  std::string mCopy;
};

// Start of the recording whose path ends `text`; 0: none, or one in progress that isn't asked for.
uint32_t StartOf(const std::string& text, bool unfinishedToo = true);
// Starts of the recordings below directories whose names begin with `place`.
std::set<uint32_t> StartsIn(const Stage& stage, const std::string& place, bool unfinishedToo);
// Of the files of all disks.
std::set<unsigned long> InodesOf(const Stage& stage);

// Expects each of the files in its one place, and a check that finds nothing.
void ExpectHealthy(const Stage& stage, const std::set<unsigned long>& inodes);
// Expects every recording that was `expected` before, or begun by the runs, to be there, unless a line has told
// where it went, and that only the oldest were recycled (`oldestFirst`).
void ExpectNothingLost(const Stage& stage, std::set<uint32_t> expected, const std::vector<CrashRun>& runs,
                       bool oldestFirst = true);
