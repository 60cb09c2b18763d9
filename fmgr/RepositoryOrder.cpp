#include "fmgr/RepositoryOrder.h"

#include <algorithm>

#include "fmgr/FmgrRepositoryGroup.h"

namespace fmgr {
namespace {

// The owners of a path in order; merging only the matches gives them the same order as merging all.
std::vector<FmgrDataRepository*> Owners(const std::list<FmgrRepositoryGroup*>& groups,
                                        const std::string& path) {
  std::list<FmgrDataRepository*> matches;
  for (const FmgrRepositoryGroup* group : groups) {
    for (FmgrDataRepository* repository : group->mDataRepositories) {
      // One that could not be set up has no path, and an empty path would occur in every other.
      const std::string& own = repository->Path();
      if (!own.empty() && path.find(own) != std::string::npos) matches.push_back(repository);
    }
  }
  if (matches.size() < 2) return {matches.begin(), matches.end()};

  RepositoryOrder order;
  MergeByStart(order, matches);
  std::vector<FmgrDataRepository*> owners;
  for (const RepositoryStart& entry : order) owners.push_back(entry.repository);
  return owners;
}

}  // namespace

RepositoryOrder StartsOf(const std::list<FmgrDataRepository*>& repositories) {
  RepositoryOrder order;
  for (FmgrDataRepository* repository : repositories)
    order.push_back({repository->GetStartTimeSec(), repository});
  return order;
}

void MergeByStart(RepositoryOrder& order, const std::list<FmgrDataRepository*>& repositories) {
  for (FmgrDataRepository* repository : repositories) {
    const int start = repository->GetStartTimeSec();
    const auto later = std::find_if(order.begin(), order.end(),
                                    [start](const RepositoryStart& entry) { return entry.start > start; });
    order.insert(later, {start, repository});
  }
}

RepositoryOrder GatherByStart(const std::list<FmgrRepositoryGroup*>& groups) {
  RepositoryOrder order;
  for (const FmgrRepositoryGroup* group : groups) MergeByStart(order, group->mDataRepositories);
  return order;
}

FmgrDataRepository* FindFirstOwner(const std::list<FmgrRepositoryGroup*>& groups, const std::string& path) {
  const std::vector<FmgrDataRepository*> owners = Owners(groups, path);
  return owners.empty() ? nullptr : owners.front();
}

FmgrDataRepository* FindLastOwner(const std::list<FmgrRepositoryGroup*>& groups, const std::string& path) {
  const std::vector<FmgrDataRepository*> owners = Owners(groups, path);
  return owners.empty() ? nullptr : owners.back();
}

}  // namespace fmgr
