// Keeps the numbers of data directories in the order of time over all disks. The file manager counts on it: it
// goes to the disk of the smallest number when it needs a file, recycles there, and gives a new directory the
// number after the current disk's last. A disk that was away comes back with numbers that others have used
// meanwhile; without an order, newer recordings would go before older ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/recorder/disks/Disks.h"

namespace recorder {

struct NumberedDirectory {
  int number = 0;
  uint32_t start = 0;  // of its oldest recording, seconds since the epoch; 0: it holds none
  std::string name;
};

// A disk's data directories in the order of their numbers, which is that in which they were made.
using DirectoryList = std::vector<NumberedDirectory>;
DirectoryList ListNumberedDirectories(const std::string& disk);

struct Renumbering {
  size_t disk;  // position in the list of disks
  NumberedDirectory from;
  int number;  // the new one: above all others
};

// What has to be renumbered so that numbers ascend strictly along the time at which directories were begun; in
// the order in which it may be cut off anywhere: each disk's own directories stay in order. Nothing when they
// do. A start after `now` was made by a clock that was ahead; such a directory stands with the one that follows
// it on its disk. One without a recording keeps its number. Nothing as well when there are no numbers left.
std::vector<Renumbering> PlanNumbers(const std::vector<DirectoryList>& disks, int64_t now);

// Renames the directories of `plan`, whose disk isn't managed by the file manager; what can't be renamed keeps
// its number, with a line on standard error, and so do the ones before it on its disk.
void Renumber(const std::vector<Disk>& disks, const std::vector<Renumbering>& plan);

}  // namespace recorder
