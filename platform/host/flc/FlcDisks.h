// The disks that the file list cache knows and their data directories, each read from its file names by the
// first request that concerns it.
//
// Threads: none of this is locked; the cache's own mutex guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Flc.h"
#include "platform/host/flc/FlcDirectory.h"

using FlcDiskName = char[FLC_DISK_NAME_SIZE];

// A disk's name as one number, so that it is compared at once; what stands behind a zero doesn't count. 0: no
// name.
uint64_t FlcDiskKey(const FlcDiskName& name);

struct FlcDataDirectory {
  enum class State : uint8_t {
    kUnread,        // stands on the disk; read on the first request that concerns it
    kRead,          // from now on only requests change it
    kMemoryOnly,    // made by requests; gives way to a directory of that number as soon as the disk has one
    kUnregistered,  // about to be deleted: answers nothing and is not read again
  };
  int32_t index = 0;
  State state = State::kUnread;
  bool isReady = false;  // its files count in the request under way
  // Copies of what `files` holds: most questions are answered, and most directories passed over, by these
  // alone.
  uint32_t count = 0;
  uint32_t latestEnd = 0;
  FlcFile oldest = {UINT32_MAX, 0, 0};
  FlcFile newest = {0, 0, 0};
  std::unique_ptr<FlcDirectory> files;  // null while unread or unregistered

  void Become(State newState, std::unique_ptr<FlcDirectory> newFiles);
  void FilesChanged();
};

struct FlcDisk {
  uint64_t key = 0;
  FlcDiskName name = {};
  std::string path;  // its directory; empty for a disk that is not attached and known only through requests
  bool isListed = false;                      // the data directories on the disk are all in `directories`
  bool isSettled = false;                     // and none of them is to be read any more
  std::vector<FlcDataDirectory> directories;  // by index

  FlcDataDirectory* Find(int32_t index);
  FlcDataDirectory& FindOrMake(int32_t index);  // made unread
  bool Drop(int32_t index);                     // false: there is none
};

// What a request concerns.
struct FlcConcern {
  uint64_t key;   // 0: every disk
  int32_t index;  // FLC_ANY_REPOSITORY: every data directory
  int error = 0;  // errno: ENOENT, nothing of that name is known; else some directory could not be read
  // When disk and directory are named, and ready.
  FlcDisk* disk = nullptr;
  FlcDataDirectory* directory = nullptr;
};

class FlcDisks {
 public:
  // As the calls of the same names in FlcHost.h: 0, or an errno.
  void Attach(const FlcDiskName& name, const char* path);
  int Detach(uint64_t key);
  int Forget(uint64_t key, int32_t index);
  void Clear();

  FlcDisk* Find(uint64_t key);  // null: not known
  FlcDisk& FindOrMake(const FlcDiskName& name);

  // Makes the records of a data directory ready. 0 and the directory, or ENOENT: no such directory; or why it
  // can't be read, which is asked again at the next request. Ends other pointers to directories of the disk.
  static int Open(FlcDisk& disk, int32_t index, FlcDataDirectory** directory);

  // Opens all that a request concerns.
  FlcConcern Concerned(uint64_t key, int32_t index);
  // Calls use(disk, directory) for each directory of it that is ready, by order of attachment, then index; or
  // in the opposite order.
  template <typename Use>
  void ForEach(const FlcConcern& concern, Use use, bool isBackwards = false) {
    if (concern.directory != nullptr) return use(*concern.disk, *concern.directory);
    const auto at = [isBackwards](auto& all, size_t i) -> auto& {
      return all[isBackwards ? all.size() - 1 - i : i];
    };
    for (size_t i = 0; i < mDisks.size(); ++i) {
      FlcDisk& disk = at(mDisks, i);
      if (concern.key != 0 && disk.key != concern.key) continue;
      for (size_t j = 0; j < disk.directories.size(); ++j) {
        FlcDataDirectory& directory = at(disk.directories, j);
        const bool isMeant = concern.index == FLC_ANY_REPOSITORY || concern.index == directory.index;
        if (isMeant && directory.isReady) use(disk, directory);
      }
    }
  }

 private:
  static int Read(FlcDisk& disk, int32_t index);
  static void OpenEach(FlcDisk& disk, FlcConcern* concern);

  std::vector<FlcDisk> mDisks;  // in order of attachment
};
