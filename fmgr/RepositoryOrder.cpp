#include "fmgr/RepositoryOrder.h"

#include <algorithm>

#include "fmgr/FmgrRepositoryGroup.h"

namespace fmgr {
namespace {

bool StartsEarlier(const RepositoryStart& a, const RepositoryStart& b) { return a.start < b.start; }

void AppendStarts(RepositoryOrder& order, const std::list<FmgrDataRepository*>& repositories) {
  for (FmgrDataRepository* repository : repositories)
    order.push_back({repository->GetStartTimeSec(), repository});
}

// Whether the path of a directory stands anywhere in `path`. It ends with a slash, so it can end only where
// that has one: for the path of a file there is as a rule a single place to compare.
bool Contains(const std::string& path, size_t lastSlash, const std::string& directory) {
  for (size_t slash = lastSlash; slash != std::string::npos && slash + 1 >= directory.size();) {
    const size_t start = slash + 1 - directory.size();
    if (path.compare(start, directory.size(), directory) == 0) return true;
    if (start == 0) return false;
    slash = path.rfind('/', slash - 1);
  }
  return false;
}

// The owners of a path in order; merging only the matches gives them the same order as merging all.
std::vector<FmgrDataRepository*> Owners(const std::list<FmgrRepositoryGroup*>& groups,
                                        const std::string& path) {
  std::list<FmgrDataRepository*> matches;
  const size_t lastSlash = path.rfind('/');
  for (const FmgrRepositoryGroup* group : groups) {
    for (FmgrDataRepository* repository : group->mDataRepositories) {
      // One that could not be set up has no path, and an empty path would occur in every other.
      const std::string& own = repository->Path();
      if (!own.empty() && Contains(path, lastSlash, own)) matches.push_back(repository);
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
  AppendStarts(order, repositories);
  return order;
}

// Each in front of the first that starts later is the order of a stable sort.
void SortByStart(RepositoryOrder& order) {
  if (!std::is_sorted(order.begin(), order.end(), StartsEarlier)) {
    std::stable_sort(order.begin(), order.end(), StartsEarlier);
  }
}

void MergeByStart(RepositoryOrder& order, const std::list<FmgrDataRepository*>& repositories) {
  if (std::is_sorted(order.begin(), order.end(), StartsEarlier)) {
    AppendStarts(order, repositories);
    SortByStart(order);
    return;
  }
  // A caller's own order stays as it is.
  for (const RepositoryStart& added : StartsOf(repositories)) {
    const auto later = std::find_if(order.begin(), order.end(), [&added](const RepositoryStart& entry) {
      return entry.start > added.start;
    });
    order.insert(later, added);
  }
}

RepositoryOrder GatherByStart(const std::list<FmgrRepositoryGroup*>& groups) {
  RepositoryOrder order;
  for (const FmgrRepositoryGroup* group : groups) AppendStarts(order, group->mDataRepositories);
  SortByStart(order);
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
