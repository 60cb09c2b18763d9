// Reads the file names of a disk's data directories for the file list cache.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/flc/FlcDirectory.h"

// Reads the names of data directory `index` of the disk directory `disk`: DISK/data_%08d, else another
// directory data_N of that number. 0 done; ENOENT when the disk has no such directory; else the errno of what
// kept it from being read to its end (ENODEV: there is no disk directory), which says nothing about its files.
int FlcReadDirectory(const std::string& disk, int32_t index, FlcDirectory* out);

// Appends the numbers of the data directories of the disk directory `disk`, in no order. 0 done, else an errno.
int FlcListDirectories(const std::string& disk, std::vector<int32_t>* out);
