// Small file system helpers of the recorder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/recorder/base/Lines.h"

namespace recorder {

bool IsDirectory(const std::string& path);
// Whether something of that name exists; a dangling symbolic link counts.
bool Exists(const std::string& path);
// Names in a directory without "." and "..", sorted; empty when it can't be read.
std::vector<std::string> ListDirectory(const std::string& path);
bool HasSuffix(const std::string& text, const std::string& suffix);
// The part up to and including the last slash; the part behind it.
std::string DirectoryOf(const std::string& path);
std::string NameOf(const std::string& path);

// rename(2) that never replaces what is there: false with EEXIST then, and with any other errno when it fails.
bool RenameToNew(const std::string& from, const std::string& to);
// The same for names in open directories.
bool RenameToNew(int fromDirectory, const std::string& from, int toDirectory, const std::string& to);
// Makes names that were given, taken or moved in a directory durable. False: errno tells why.
bool SyncDirectory(const std::string& path);

}  // namespace recorder
