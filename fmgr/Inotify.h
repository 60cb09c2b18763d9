// A polled inotify(7) watch of one directory; shared by the watches of data directories and of disks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace fmgr {

// Starts watching a directory for the events of `mask`. A descriptor that can't be had is left negative;
// without an inotify instance `watch` is left as it was, and false is returned.
bool StartWatch(const std::string& directory, uint32_t mask, int& instance, int& watch);

// Ends a watch that was started; both descriptors become -1.
void StopWatch(int& instance, int& watch);

// Reads what is pending, at most `size` bytes, and passes on each event that has a name. Never blocks. Further
// events wait for the next call. A record whose name reaches beyond what was read ends the walk.
void ReadEvents(int instance, char* buffer, size_t size,
                const std::function<void(uint32_t mask, const std::string& name)>& handle);

}  // namespace fmgr
