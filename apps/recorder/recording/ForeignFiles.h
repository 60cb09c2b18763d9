// Saves what others have put into a data directory. The file manager removes a data directory that has become
// empty with everything in it; what its list of record files does not know would go as well.
#pragma once

class FmgrRepositoryGroup;

namespace recorder {

class Disks;
struct Disk;

// How many recordings may be recycled between two calls of SaveForeignFiles: directories that hold no more are
// looked at, larger ones can't become empty before the next call.
constexpr int kSmallDirectory = 4;

// Moves what is no record file (search databases aside) out of the disk's small data directories into its
// quarantine, one line each, and has the file list cache read a directory afresh that does not agree with its
// list. A directory with something in it that can't be moved must never be removed: its recordings move on to
// the next one, and it is left out. To be called while no record file is open, before anything is recycled.
void SaveForeignFiles(Disks& disks, const Disk& disk, FmgrRepositoryGroup& group);

// Removes the empty data directories that stand in front of the disk's others: what a process left that was
// killed while it recycled. The file manager recycles from the disk whose first data directory has the smallest
// number, so with such a directory on it a disk would lose recordings that are newer than another's. To be
// called as above.
void RemoveEmptyDirectories(Disks& disks, const Disk& disk, FmgrRepositoryGroup& group);

}  // namespace recorder
