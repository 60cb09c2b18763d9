// Small file system helpers of the recorder.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/recorder/base/Lines.h"

namespace recorder {

bool IsDirectory(const std::string& path);
// Whether something of that name exists; a dangling symbolic link counts.
bool Exists(const std::string& path);
// Names in a directory without "." and "..", sorted; empty when it can't be read.
std::vector<std::string> ListDirectory(const std::string& path);
// The same; 0, or the errno of a listing that broke off: then `names` has what came before.
int ListDirectory(const std::string& path, std::vector<std::string>* names);
bool HasSuffix(const std::string& text, const std::string& suffix);
// The part up to and including the last slash; the part behind it.
std::string DirectoryOf(const std::string& path);
std::string NameOf(const std::string& path);

// rename(2) that never replaces what is there: false with EEXIST then, and with any other errno when it fails.
bool RenameToNew(const std::string& from, const std::string& to);
// The same for names in open directories.
bool RenameToNew(int fromDirectory, const std::string& from, int toDirectory, const std::string& to);
// At most `limit` bytes of a regular file; nothing for anything else: errno tells why, EINVAL of what can't be
// read like a file. Opening a fifo does not block. `flags` are open(2)'s: links are not followed unless it is
// 0.
std::optional<std::string> ReadSmallFile(const std::string& path, size_t limit, int flags = O_NOFOLLOW);
// Replaces the file as a whole, by way of PATH.next; not made durable. False: errno tells why, and it says what
// it said before.
bool ReplaceFile(const std::string& path, const std::string& text);

// Makes names that were given, taken or moved in a directory durable. False: errno tells why.
bool SyncDirectory(const std::string& path);

}  // namespace recorder
