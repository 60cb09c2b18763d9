// Sets aside what does not belong on a disk, or can't be used: into DISK/set_aside, by a rename on the disk's
// own file system. Nothing is deleted, copied or replaced, and no link is followed. What is there is nobody's
// until a person has looked at it; recorder check names it.
#pragma once

#include <string>

namespace recorder {

// Whether a directory of that name in a disk's directory is one for what is set aside. There is a second one
// where somebody else has made the first name something else.
bool IsSetAsideName(const std::string& name);

struct SetAsideResult {
  std::string to;  // where it is now; empty: it stays where it was
  int error = 0;   // why, errno's
};

// Sets `path` aside, an entry of the disk's directory or of a directory in it, which may end with a slash. It
// keeps its name, with a number behind it when that is taken.
SetAsideResult SetAside(const std::string& disk, const std::string& path);

}  // namespace recorder
