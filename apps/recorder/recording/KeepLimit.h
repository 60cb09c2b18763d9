// Recycles what is older than it may get.
#pragma once

#include <cstdint>

class FmgrFileManager;

namespace recorder {

// Recycles at most `rounds` recordings that ended `keepSeconds` ago or earlier, the oldest first; 0: none. The
// file manager knows a few fixed limits only: it keeps to its own, and what that leaves is looked after here.
// To be called while no record file is open.
void RecycleOlderThan(FmgrFileManager& manager, int64_t keepSeconds, int rounds);

}  // namespace recorder
