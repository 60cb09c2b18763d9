// Listing the files of a directory by a bounded glob pattern; shared by everything that lists.
#pragma once

#include <string>
#include <vector>

namespace fmgr {

// A pattern is formatted into 64 bytes, terminator included, and cut there: a path that is too long lists a
// wrong pattern, which as a rule matches nothing. Deliberate: disk paths are kept short enough (39 bytes) by
// the application, and what lies outside the bound stays untouched.
std::string BoundedPattern(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The bounded pattern for all record files of a directory, which ends with a slash; the pattern then has a
// double one, which the file system takes as one.
std::string RecordFilePattern(const std::string& directory);

// Expands a pattern in the sorted order of glob(3). Result: 0 also for no match and for a directory that is
// missing, else glob's error code with `paths` untouched: GLOB_ABORTED when a directory can't be opened or not
// be read to its end, since a listing that breaks off must not pass for an empty or a short one.
int Expand(const std::string& pattern, std::vector<std::string>& paths);

}  // namespace fmgr
