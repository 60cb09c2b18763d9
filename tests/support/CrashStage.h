// A root directory on which the recorder runs, fails, is killed and starts again, and what must hold
// afterwards.
#pragma once

#include <cstdint>
#include <functional>

#include "tests/support/CrashRunner.h"
#include "tests/support/TestDisk.h"

// Start times of the runs, in seconds since the epoch.
constexpr int kFillTime = 1700000000;  // of what is on the disks before
constexpr int kCrashTime = 1700001000;
constexpr int kSecondTime = 1700002000;
constexpr int kLastTime = 1700003000;

using Arguments = std::vector<std::string>;

// A root directory with inputs to record, and a copy of it to start over from. Both go with the object.
class Stage {
 public:
  Stage();
  ~Stage() { fs::remove_all(mCopy); }

  void Save() { Copy(Root(), mCopy); }
  void Restore() { Copy(mCopy, Root()); }

  const std::string& Root() const { return mRoot.Path(); }
  std::vector<std::string> Disks() const;

  // Runs the recorder with `arguments`; the plan's root is this one.
  CrashRun Run(Arguments arguments, CrashPlan plan = {}) const;
  Arguments Prepare(const std::string& disk, int count) const;
  // 1, 3 or 6 segments.
  Arguments Record(int segments, int start) const;

  // Two disks, all of whose files hold a recording.
  void BuildFull();
  // A recording cut off in its middle, a search database that is to be rebuilt, and one that lacks a recording.
  void BuildCutOff();

 private:
  static void Copy(const std::string& from, const std::string& to);
  // Two seconds a segment of two seconds, four pictures.
  std::string Input(int segments) const { return Root() + "/in" + std::to_string(segments) + ".mp4"; }

  const TestRoot mRoot;
  const std::string mCopy = mRoot.Path() + ".s";
};

struct Scenario {
  const char* name;
  std::function<void(Stage&)> build;         // the state to start from
  std::function<Arguments(Stage&)> command;  // the one that is killed, or whose calls fail
  size_t failPacketAt = 0;                   // besides, a disk that does not take this packet
  const char* landmark = "";
};
inline void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }
inline std::string NameOf(const testing::TestParamInfo<Scenario>& scenario) { return scenario.param.name; }
inline auto Preparing(const char* disk, int count) {
  return [=](Stage& stage) { return stage.Prepare(disk, count); };
}
inline auto Recording(int segments, int start) {
  return [=](Stage& stage) { return stage.Record(segments, start); };
}
// Whether no expectation of `body` fails.
bool Passes(const std::function<void()>& body);

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
