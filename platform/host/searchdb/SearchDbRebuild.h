// Makes the search database of a data directory anew, or changes what is out of step with the record files:
// what is recorded is taken from their names, and when each channel has pictures from the files themselves.
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

// `directory` with or without a trailing "/". Of each record file, its index is read, and what that does not
// list is walked; none is written to. Of one that can't be read, what its name says is in the database. That
// may take minutes, and nobody is kept waiting meanwhile. Then search.fdb is emptied, so that a rebuild that is
// cut off is seen and done again; a complete database takes its place in one step, made durable. A second
// rebuild of the same directory, in any process, waits for the first. `progress` (may be empty) hears how many
// of how many entries were looked at.
SearchDbRebuildResult RebuildSearchDb(const std::string& directory,
                                      const std::function<void(size_t done, size_t total)>& progress,
                                      SearchDbRebuildReport* report);

// Changes a database that can be read until its rows are those that a rebuild would make, in one step; rows of
// times that no chart can hold are not seen. Only the files of rows that are missing or differ, and those whose
// names don't say all of it, are read; a row that is right keeps its spans, whatever the file says of them.
// False: it is as it was, and has to be rebuilt. Nobody may be recording to the directory. `directory` ends
// with "/".
bool MendSearchDb(const std::string& directory);
