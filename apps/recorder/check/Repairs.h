// Puts right what the check of a disk has found, one function a kind of repair. No file is ever deleted: what
// can be used goes where it belongs, what can't goes into quarantine or stays. No file replaces another.
//
// The caller holds the lock on the root directory, so nobody records.
#pragma once

#include <functional>
#include <string>

#include "apps/recorder/check/Checker.h"

namespace recorder {

// Hears in a few words what became of the file or directory at `path`.
using Say = std::function<void(const std::string& path, const std::string& what)>;

// Laid-down files that lie outside go into the pool, recordings among them into quarantine; of a file that is
// in its place already, the name that preparing left goes; numbers for what lies in the pool under other names.
void ReturnOrphans(const DiskReport& report, const Say& say);
// Recordings that were never completed get their name, or go back to the pool when nothing is in them, or into
// quarantine when the device can't read them.
void RepairNames(const DiskReport& report, const Say& say);
// Search databases are made anew from the names.
void RebuildSearchDbs(const DiskReport& report, const Say& say);

}  // namespace recorder
