// Lays down a disk's record files.
//
//   1. The file manager makes imf_prealloc with all files in it, and links each into imf_free.
//   2. Everything is made durable.
//   3. The files' names in imf_prealloc are removed, each only when the pool has it, then the directory.
//
// Cut off anywhere, the disk counts as prepared only half: the next attempt says what to remove.
#pragma once

#include <cstdint>
#include <string>

namespace recorder {

struct PrepareOptions {
  std::string disk;  // its name
  std::string size;  // of one record file, as 64M
  int64_t count = 0;
};

// Returns the exit status; every failure has said a line on standard error.
int Prepare(const PrepareOptions& options, const std::string& root);

}  // namespace recorder
