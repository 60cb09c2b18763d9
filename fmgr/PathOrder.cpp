#include "fmgr/PathOrder.h"

#include <iterator>

#include "fmgr/RecordFileName.h"

namespace fmgr {

void PathOrder::Note(Position position, uint32_t start) {
  if (mFirstFrom.empty() || mFirstFrom.rbegin()->first < start) {
    mFirstFrom.emplace_hint(mFirstFrom.end(), start, position);
  }
}

void PathOrder::ReadStarts() {
  if (mHasStarts) return;
  mHasStarts = true;
  for (auto position = mPaths.begin(); position != mPaths.end(); ++position) {
    Note(position, static_cast<uint32_t>(PathToStartTime(*position)));
  }
}

std::string& PathOrder::Append(uint32_t start) {
  std::string& path = mPaths.emplace_back();
  if (mHasStarts) Note(std::prev(mPaths.end()), start);
  return path;
}

std::string& PathOrder::Insert(uint32_t start) {
  ReadStarts();
  const auto later = mFirstFrom.lower_bound(start);
  const Position position = mPaths.emplace(later == mFirstFrom.end() ? mPaths.end() : later->second);
  if (later != mFirstFrom.end() && later->first == start) {
    later->second = position;
  } else {
    mFirstFrom.emplace_hint(later, start, position);
  }
  return *position;
}

}  // namespace fmgr
