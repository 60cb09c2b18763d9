// Makes the search database of a data directory anew from the names of its record files.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

struct SearchDbRebuildReport {
  size_t recordings = 0;  // now in the database
  size_t inProgress = 0;  // the file being recorded: not in the database
  size_t skipped = 0;  // other entries that end in ".imf": links, directories, names or times that mean nothing
  std::string error;   // one line without a line end; empty after a success
};

enum class SearchDbRebuildResult {
  kDone,
  kRefused,  // no such directory, or its search.fdb is not a regular file: nothing was changed
  kFailed,   // search.fdb is empty or as it was, and the next start rebuilds it
};

// `directory` with or without a trailing "/". search.fdb is emptied first, so that a rebuild that is cut off is
// seen and done again; a complete database then takes its place in one step, made durable. Record files are not
// written to, and only opened where the name lacks the end time or the channels. A second rebuild of the same
// directory, in any process, waits for the first. `progress` (may be empty) hears how many of how many entries
// were looked at.
SearchDbRebuildResult RebuildSearchDb(const std::string& directory,
                                      const std::function<void(size_t done, size_t total)>& progress,
                                      SearchDbRebuildReport* report);
