// Data directories of several disks in ascending start time.
#pragma once

#include <list>
#include <string>
#include <vector>

class FmgrDataRepository;
class FmgrRepositoryGroup;

namespace fmgr {

// Keeps each directory's start beside it, so that a gather over n directories asks for n starts and not for one
// per comparison; a start costs two driver requests.
struct RepositoryStart {
  int start;
  FmgrDataRepository* repository;
};
using RepositoryOrder = std::vector<RepositoryStart>;

// The directories in the order given.
RepositoryOrder StartsOf(const std::list<FmgrDataRepository*>& repositories);

// By ascending start; of equal starts, in the order given.
void SortByStart(RepositoryOrder& order);

// Puts each directory in front of the first entry that starts later.
void MergeByStart(RepositoryOrder& order, const std::list<FmgrDataRepository*>& repositories);

// All data directories of the groups, merged group by group.
RepositoryOrder GatherByStart(const std::list<FmgrRepositoryGroup*>& groups);

// The data directory that owns a path: whose own path occurs in it. Of several, the first in the order of
// GatherByStart, or the last. Null for none. Asks the driver nothing while only one matches.
FmgrDataRepository* FindFirstOwner(const std::list<FmgrRepositoryGroup*>& groups, const std::string& path);
FmgrDataRepository* FindLastOwner(const std::list<FmgrRepositoryGroup*>& groups, const std::string& path);

}  // namespace fmgr
