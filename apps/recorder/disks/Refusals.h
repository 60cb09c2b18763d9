// What the recorder refuses because the file manager would take it and come to grief over it. No disk access:
// each function looks at what it is given and answers with one clear line, or with nothing when all is well.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "IpcMenu.h"

namespace recorder {

using Refusal = std::optional<std::string>;

constexpr int64_t kEarliestTime =
    0x10000000;  // 1978-07-04: from here on a start time has eight hexadecimal digits
constexpr int64_t kLatestTime = 0x7fffffff;  // 2038-01-19: the file manager's times are signed 32-bit numbers

constexpr int64_t kFewestFiles = 3;  // of a disk: one being written, one that plays, one to recycle

// `root` as given on the command line.
Refusal RefuseRoot(const std::string& root);
// `path` is the directory of a disk as the file manager will get it.
Refusal RefuseDiskPath(const std::string& path);
// `others` are the disks beside it; `name` itself may be among them once.
Refusal RefuseDiskName(const std::string& name, const std::vector<std::string>& others);
// Size in bytes of one record file, and how many of them.
Refusal RefuseGeometry(uint64_t size, int64_t count);
// Seconds since the epoch.
Refusal RefuseClock(int64_t seconds);
// How long recordings are kept, in seconds; 0: no limit. Fills `limit` with the shortest one of the file
// manager's that is not shorter, or none.
Refusal RefuseKeep(int64_t seconds, ipc_preserve_limit_e* limit);

}  // namespace recorder
