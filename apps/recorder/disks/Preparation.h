// Lays down a disk's record files.
//
//   1. The manifest says what is going to be laid down, and the reserve takes its blocks.
//   2. The file manager makes imf_prealloc with all files in it, and links each into imf_free.
//   3. Everything is made durable.
//   4. The files' names in imf_prealloc are removed, each only when the pool has it, then the directory.
//
// Cut off from 2 on, imf_prealloc is there, and the preparation can be finished or undone. Cut off before, it
// is begun anew as if nothing had been done.
#pragma once

#include <string>

#include "apps/recorder/disks/PreparationPlan.h"

namespace recorder {

// Blocks in the disk's directory that can be given up when the file system has none left. Its length is what
// was laid down.
constexpr char kReserveFile[] = "recorder.reserve";

// Prepares, resumes or undoes, as the options say. Returns the exit status; every failure has said a line on
// standard error.
int Prepare(const PrepareOptions& options, const std::string& root);

// Whether preparing the disk at `path` was begun and not finished.
bool IsPreparationCutOff(const std::string& path);
// The command, or commands, that finish it or take it back: the end of a line.
std::string HowToFinish(const std::string& root, const std::string& path);

}  // namespace recorder
