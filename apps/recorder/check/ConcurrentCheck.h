// Checks several disks, also beside a recorder that is moving their files.
#pragma once

#include <string>
#include <vector>

#include "apps/recorder/check/Checker.h"
#include "apps/recorder/disks/Disks.h"

namespace recorder {

using Reports = std::vector<DiskReport>;  // in the order of the disks

// Each disk once: for whoever holds the lock on the root directory.
Reports CheckAll(const std::vector<Disk>& disks);
// While somebody else may hold it. What is found is looked at again then, and only what stays is reported.
Reports CheckBeside(const std::string& root, const std::vector<Disk>& disks);

}  // namespace recorder
