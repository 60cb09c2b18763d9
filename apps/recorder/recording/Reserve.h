// A disk's reserve: room that preparing leaves unused in a file, so that a file system on which something else
// has taken the last block still has some for a data directory or a search database. Only its blocks are given
// up; its length tells how much is to be reserved again when there is room.
#pragma once

#include <string>

namespace recorder {

// True when blocks were set free. `disk` is its directory. Says a line when it does.
bool GiveUpReserve(const std::string& disk);
// Gives it up when the file system has no block left, and lays it down again when there is room for it and
// more.
void KeepReserve(const std::string& disk);

}  // namespace recorder
