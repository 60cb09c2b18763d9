// A caller's list of paths to which recordings are added, in one call for many data directories.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace fmgr {

class PathOrder {
 public:
  // While the object lives, only it changes the list.
  explicit PathOrder(std::list<std::string>& paths) : mPaths(paths) {}

  // A new entry at the end, for a recording of that start.
  std::string& Append(uint32_t start);
  // A new entry in front of the first that starts at or after `start`, at the end when there is none.
  std::string& Insert(uint32_t start);

 private:
  using Position = std::list<std::string>::iterator;
  void ReadStarts();
  void Note(Position position, uint32_t start);

  std::list<std::string>& mPaths;
  // The entries that start later than all before them, which are the only ones that something is inserted in
  // front of: the list may have come in any order. Read when something is inserted first.
  std::map<uint32_t, Position> mFirstFrom;
  bool mHasStarts = false;
};

}  // namespace fmgr
