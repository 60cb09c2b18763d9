// Test disks: small directories directly under /tmp, since the library's 64-byte patterns need short paths.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "RecoveryObserver.h"

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

// What printf would print; at most 199 characters.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

// ROOT/disk/NAME for each disk, attached to the file list cache; all gone with the object.
class TestRoot {
 public:
  TestRoot();
  ~TestRoot();
  TestRoot(const TestRoot&) = delete;
  TestRoot& operator=(const TestRoot&) = delete;

  const std::string& Path() const { return mPath; }
  // Makes a disk with `freeFiles` pool files of `size` bytes, numbered from 0, and attaches it. Returns its
  // directory.
  std::string AddDisk(const std::string& name, int freeFiles = 0, int size = 4096);
  // Forgets everything cached, as a restart would.
  void ForgetAll();

 private:
  std::string mPath;
  Names mNames;
};

// Makes a file of `size` bytes; its directory is made when missing. Returns the path.
std::string MakeTestFile(const std::string& path, int size = 4096);

// Records into the existing file at `path` (64 KiB will do): one packet for each channel bit of `mask`, all of
// them `seconds` after the start. The file's header knows this end, but is not closed, as after a crash.
void WriteTestRecording(const std::string& path, unsigned start, int seconds, unsigned mask);

// Sorted names in a directory, "." and ".." left out; empty when it is missing.
Names NamesIn(const std::string& directory);

// Where every laid-down file of a disk is: inode number -> "imf_free", "imf_error" or "data_N" for each place.
std::map<unsigned long, std::multiset<std::string>> PlacesOf(const std::string& disk);
// Expects each of the files known by inode in exactly one place, and none besides.
void ExpectEachInOnePlace(const std::string& disk, const std::set<unsigned long>& inodes);
std::set<unsigned long> InodesOf(const std::string& disk);
// The record files in data directories below `root` whose names have `part` in them ("_cm": the completed
// ones), as name -> path; names ascend with time.
std::map<std::string, std::string> RecordFilesIn(const std::string& root, const char* part = ".imf");

std::string ReadText(const std::string& path);
void WriteText(const std::string& path, const std::string& text);
Names LinesOf(const std::string& text);
// Whether `part` stands in `text`; a failure shows both.
testing::AssertionResult Has(const std::string& text, const std::string& part);

// Runs `body` and returns what it wrote to standard error.
template <typename Body>
std::string StderrOf(Body body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

// Remembers what it hears, one text per call: "stage 2 1", "fixed PATH MASK", "removed PATH START END MASK"
// (numbers in lower-case hexadecimal).
class RecordingObserver final : public RecoveryObserver {
 public:
  void NotifyStage(int stage, int active) override;
  void NotifyFileFixed(ImfFile& file, const std::string& newName, unsigned videoChannelMask) override;
  void NotifyFileRemoved(const std::string& path, unsigned start, unsigned end, unsigned mask) override;

  Names heard;
};
