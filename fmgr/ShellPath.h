// Paths in shell commands.
#pragma once

#include <string>

namespace fmgr {

// The path as one word of a shell command that stands for exactly that path: as it is when it consists of
// letters, digits and "/._-", else in single quotes. Without that, a disk called "a b" or "x;reboot" would turn
// the removal of one directory into something else.
std::string ShellPath(const std::string& path);

}  // namespace fmgr
