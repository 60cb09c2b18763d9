// Disks to measure on: directories with record files of no content, since only their names are asked for.
#pragma once

#include <cstdint>
#include <list>
#include <string>

class FmgrFileManager;

namespace bench {

struct Settings {
  std::string directory;  // on the file system that is measured; short, a disk's path may have 39 bytes
  std::string programs;   // where the recorder is
  std::string picture;    // the latencies as a PNG; empty: none
  bool quick = false;
};

// A failure of the set-up: says what, with the system's error, and ends the program.
[[noreturn]] void Stop(const std::string& what);

std::string DataDirectoryName(int index);
std::string CompletedName(uint32_t start, uint32_t end, uint32_t mask);
// DIRECTORY/NAME without content.
void MakeFile(const std::string& path);
// `count` recordings of `seconds` from `start` on, one behind the other.
void MakeRecordings(const std::string& directory, uint32_t start, int count, int seconds);
// A file that keeps the library from building a search database there.
void MakeStubOfDatabase(const std::string& directory);

// SETTINGS.directory/s/disk/NAME; the file manager over them. One at a time; all is gone with the object.
class Stage {
 public:
  explicit Stage(const Settings& settings);
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  const std::string& Root() const { return mRoot; }
  // Makes a disk with an empty pool and attaches it to the file list cache.
  std::string MakeDisk(const std::string& name);
  // Makes a data directory, ends with a slash.
  static std::string MakeDirectory(const std::string& disk, int index);
  // The file manager, made the first time.
  FmgrFileManager& Make();
  FmgrFileManager& Add(const std::string& disk);
  FmgrFileManager& Manager() { return *mManager; }

 private:
  std::string mRoot;
  std::list<std::string> mNames;
  FmgrFileManager* mManager = nullptr;
};

}  // namespace bench
