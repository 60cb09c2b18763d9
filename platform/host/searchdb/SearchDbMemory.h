// What this process has found out about databases that it read, for as long as they lie there unchanged: to
// look for it again at every search would take longer than the search.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/host/searchdb/SearchDbGuard.h"

namespace searchdb {

// Recordings are hardly ever longer; those that are, are looked for.
constexpr int64_t kUsualLength = 3600;  // seconds

// Of a database whose schema is the expected one.
struct Knowledge {
  // No recording that starts at or before `upTo` lasts longer.
  int64_t longest = kUsualLength;  // seconds
  int64_t upTo = INT64_MIN;        // seconds since the epoch
};

// Nothing when there was another file in that state's place, or nothing is known.
std::optional<Knowledge> Recall(const FileState& state);

// `state` was the file's before it was read and after. Not kept of a file that was changed within the last
// seconds: one more change might leave it with the same times.
void Keep(const FileState& state, const Knowledge& knowledge);

}  // namespace searchdb
