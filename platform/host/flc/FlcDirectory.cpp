#include "platform/host/flc/FlcDirectory.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace {

constexpr size_t kBlock = 128;  // files

bool ByEnd(const FlcFile& a, const FlcFile& b) {
  return std::tie(a.endTime, a.startTime) < std::tie(b.endTime, b.startTime);
}

// The first file that starts at or after the time.
size_t LowerBound(const std::vector<FlcFile>& files, uint32_t time) {
  const auto found =
      std::lower_bound(files.begin(), files.end(), time,
                       [](const FlcFile& file, uint32_t limit) { return file.startTime < limit; });
  return static_cast<size_t>(found - files.begin());
}

// The first file that starts after the time.
size_t UpperBound(const std::vector<FlcFile>& files, uint32_t time) {
  return time == UINT32_MAX ? files.size() : LowerBound(files, time + 1);
}

size_t PowerOfTwoFrom(size_t number) {
  size_t power = 1;
  while (power < number) power *= 2;
  return power;
}

}  // namespace

FlcDirectory::FlcDirectory(std::vector<FlcFile> files) {
  // The latest end first, since unique() keeps the first of several.
  const auto order = [](const FlcFile& a, const FlcFile& b) {
    return std::tie(a.startTime, b.endTime, b.channelMask) < std::tie(b.startTime, a.endTime, a.channelMask);
  };
  std::sort(files.begin(), files.end(), order);
  const auto sameStart = [](const FlcFile& a, const FlcFile& b) { return a.startTime == b.startTime; };
  files.erase(std::unique(files.begin(), files.end(), sameStart), files.end());
  mCount = files.size();
  mBlocks.reserve((mCount + kBlock - 1) / kBlock);
  for (auto left = files.begin(); left != files.end();) {
    const auto end = left + std::min<std::ptrdiff_t>(kBlock, files.end() - left);
    mBlocks.push_back({{left, end}});
    left = end;
  }
  mInner.resize(PowerOfTwoFrom(mBlocks.size()));
  // Backwards: a file without an end at the end of a block reaches up to the next block's first one.
  for (size_t i = mBlocks.size(); i-- > 0;) Summarize(i);
  JoinAll();
}

void FlcDirectory::Add(const FlcFile& file) {
  if (mBlocks.empty()) InsertBlock(0);
  size_t block = BlockOf(file.startTime);
  size_t offset = LowerBound(mBlocks[block].files, file.startTime);
  if (offset < mBlocks[block].files.size() && mBlocks[block].files[offset].startTime == file.startTime) {
    mBlocks[block].files[offset] = file;
    Changed(block);
    return;
  }
  if (mBlocks[block].files.size() == kBlock) {
    // At either end the full block stays as it is: that is where files come and go.
    if (offset == kBlock && block + 1 == mBlocks.size()) {
      InsertBlock(++block);
      offset = 0;
    } else if (offset == 0 && block == 0) {
      InsertBlock(0);
    } else {
      InsertBlock(block + 1);
      std::vector<FlcFile>& lower = mBlocks[block].files;
      std::vector<FlcFile>& upper = mBlocks[block + 1].files;
      upper.assign(lower.begin() + kBlock / 2, lower.end());
      lower.resize(kBlock / 2);
      Changed(block + 1);
      Changed(block);
      if (offset > kBlock / 2) {
        ++block;
        offset -= kBlock / 2;
      }
    }
  }
  std::vector<FlcFile>& files = mBlocks[block].files;
  files.insert(files.begin() + static_cast<std::ptrdiff_t>(offset), file);
  ++mCount;
  const bool isLast = block + 1 == mBlocks.size() && offset + 1 == files.size();
  if (isLast && offset > 0 && files[offset - 1].endTime != 0) {
    Include(block, offset);  // nothing else has changed
    JoinAbove(block);
  } else {
    Changed(block);
  }
}

bool FlcDirectory::Remove(uint32_t startTime) {
  if (mBlocks.empty()) return false;
  const size_t block = BlockOf(startTime);
  std::vector<FlcFile>& files = mBlocks[block].files;
  const size_t offset = LowerBound(files, startTime);
  if (offset == files.size() || files[offset].startTime != startTime) return false;
  files.erase(files.begin() + static_cast<std::ptrdiff_t>(offset));
  --mCount;
  if (files.empty()) {
    mBlocks.erase(mBlocks.begin() + static_cast<std::ptrdiff_t>(block));
    JoinAll();
  }
  Changed(block);
  return true;
}

const FlcFile& FlcDirectory::At(size_t position) const {
  size_t block = 0;
  size_t before = 0;  // files in the blocks before
  if (position < mCount / 2) {
    while (before + mBlocks[block].files.size() <= position) before += mBlocks[block++].files.size();
  } else {
    block = mBlocks.size() - 1;
    before = mCount - mBlocks[block].files.size();
    while (before > position) before -= mBlocks[--block].files.size();
  }
  return mBlocks[block].files[position - before];
}

size_t FlcDirectory::CountUpTo(uint32_t time) const {
  if (mCount == 0 || Newest().startTime <= time) return mCount;
  const size_t block = BlockOf(time);
  size_t count = UpperBound(mBlocks[block].files, time);
  for (size_t i = 0; i < block; ++i) count += mBlocks[i].files.size();
  return count;
}

const FlcFile* FlcDirectory::FirstFrom(uint32_t time, uint32_t mask) const {
  if (mCount == 0 || Newest().startTime < time) return nullptr;
  size_t block = BlockOf(time);
  for (size_t i = LowerBound(mBlocks[block].files, time);; i = 0) {
    for (const std::vector<FlcFile>& files = mBlocks[block].files; i < files.size(); ++i) {
      if (files[i].Passes(mask)) return &files[i];
    }
    if (++block == mBlocks.size()) return nullptr;
  }
}

const FlcFile* FlcDirectory::LastUpTo(uint32_t time, uint32_t mask) const {
  if (mCount == 0 || Oldest().startTime > time) return nullptr;
  size_t block = BlockOf(time);
  for (size_t i = UpperBound(mBlocks[block].files, time);; i = mBlocks[--block].files.size()) {
    for (const std::vector<FlcFile>& files = mBlocks[block].files; i > 0; --i) {
      if (files[i - 1].Passes(mask)) return &files[i - 1];
    }
    if (block == 0) return nullptr;
  }
}

const FlcFile* FlcDirectory::Covering(uint32_t time, uint32_t mask) const {
  if (mCount == 0) return nullptr;
  const std::vector<FlcFile>& files = mBlocks[BlockOf(time)].files;
  const size_t exact = LowerBound(files, time);
  if (exact < files.size() && files[exact].startTime == time && files[exact].Passes(mask)) return &files[exact];
  for (size_t block = 0; (block = NextBlock(block, time, UINT32_MAX)) < mBlocks.size(); ++block) {
    for (size_t i = mBlocks[block].isAscending ? FirstReaching(block, time) : 0;
         i < mBlocks[block].files.size(); ++i) {
      if (Reach(block, i) >= time && mBlocks[block].files[i].Passes(mask)) return &mBlocks[block].files[i];
    }
  }
  return nullptr;
}

size_t FlcDirectory::InInterval(uint32_t from, uint32_t to, uint32_t mask, size_t limit, FlcFile* out) const {
  size_t count = 0;
  bool isHeap = false;           // `out` is full, the last by end in front
  uint32_t latest = UINT32_MAX;  // what ends later has no place in `out`
  for (size_t block = 0; (block = NextBlock(block, from, latest)) < mBlocks.size(); ++block) {
    if (mBlocks[block].firstStart >= to) break;
    for (const FlcFile& file : mBlocks[block].files) {
      if (file.startTime >= to) break;
      if (file.endTime == 0 || file.endTime < from || file.endTime > latest || !file.Passes(mask)) continue;
      if (count < limit) {
        out[count++] = file;
        if (count == limit) latest = std::max_element(out, out + count, ByEnd)->endTime;
        continue;
      }
      if (!isHeap) std::make_heap(out, out + count, ByEnd);
      isHeap = true;
      if (!ByEnd(file, out[0])) continue;
      std::pop_heap(out, out + count, ByEnd);
      out[count - 1] = file;
      std::push_heap(out, out + count, ByEnd);
      latest = out[0].endTime;
    }
  }
  if (!std::is_sorted(out, out + count, ByEnd)) std::sort(out, out + count, ByEnd);
  return count;
}

// The block that holds the last file that starts at or before the time, else the first.
size_t FlcDirectory::BlockOf(uint32_t time) const {
  if (mBlocks.empty() || time <= mBlocks.front().firstStart) return 0;
  if (time >= mBlocks.back().firstStart) return mBlocks.size() - 1;
  const auto after =
      std::upper_bound(mBlocks.begin(), mBlocks.end(), time,
                       [](uint32_t limit, const Block& block) { return limit < block.firstStart; });
  return after == mBlocks.begin() ? 0 : static_cast<size_t>(after - mBlocks.begin()) - 1;
}

uint32_t FlcDirectory::Reach(size_t block, size_t offset) const {
  const std::vector<FlcFile>& files = mBlocks[block].files;
  if (files[offset].endTime != 0) return files[offset].endTime;
  if (offset + 1 < files.size()) return files[offset + 1].startTime;
  return block + 1 < mBlocks.size() ? mBlocks[block + 1].firstStart : UINT32_MAX;
}

// In a block in which the files reach further and further, the first one that reaches the time.
size_t FlcDirectory::FirstReaching(size_t block, uint32_t time) const {
  size_t low = 0;
  size_t high = mBlocks[block].files.size();
  while (low < high) {
    const size_t middle = (low + high) / 2;
    if (Reach(block, middle) < time) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

FlcDirectory::Ends FlcDirectory::EndsOf(size_t node) const {
  if (node < mInner.size()) return mInner[node];
  const size_t block = node - mInner.size();
  return block < mBlocks.size() ? mBlocks[block].ends : Ends();
}

// The first block, from `block` on, that has a file which reaches `from` and one that ends at `to` or before.
// As many as there are blocks or more: none has.
size_t FlcDirectory::NextBlock(size_t block, uint32_t from, uint32_t to) const {
  for (size_t node = block == 0 ? 1 : mInner.size() + block; block < mBlocks.size();) {
    const Ends ends = EndsOf(node);
    if (ends.latest >= from && ends.earliest <= to) {
      if (node >= mInner.size()) return node - mInner.size();
      node *= 2;
      continue;
    }
    while (node % 2 == 1) node /= 2;  // nothing follows below the parent of a right one
    if (node == 0) break;
    ++node;
  }
  return mBlocks.size();
}

void FlcDirectory::InsertBlock(size_t at) {
  // All that may fail comes first.
  std::vector<FlcFile> files;
  files.reserve(mBlocks.empty() ? 4 : kBlock);
  std::vector<Ends> inner(PowerOfTwoFrom(mBlocks.size() + 1));
  mBlocks.insert(mBlocks.begin() + static_cast<std::ptrdiff_t>(at), Block{std::move(files)});
  mInner = std::move(inner);
  JoinAll();
}

// After a change of that block's files, or where a block was removed.
void FlcDirectory::Changed(size_t block) {
  if (block < mBlocks.size()) {
    Summarize(block);
    JoinAbove(block);
  }
  // The last file of the block before may reach up to this one.
  if (block > 0 && mBlocks[block - 1].files.back().endTime == 0) {
    Summarize(block - 1);
    JoinAbove(block - 1);
  }
}

void FlcDirectory::Summarize(size_t block) {
  mBlocks[block].firstStart = mBlocks[block].files.front().startTime;
  mBlocks[block].ends = Ends();
  mBlocks[block].isAscending = true;
  for (size_t i = 0; i < mBlocks[block].files.size(); ++i) Include(block, i);
}

// Into the summary of a block, in start order.
void FlcDirectory::Include(size_t block, size_t offset) {
  Block& summary = mBlocks[block];
  const uint32_t end = summary.files[offset].endTime;
  const uint32_t reach = Reach(block, offset);
  if (end != 0) summary.ends.earliest = std::min(summary.ends.earliest, end);
  summary.isAscending = summary.isAscending && reach >= summary.ends.latest;
  summary.ends.latest = std::max(summary.ends.latest, reach);
}

// The inner nodes above a block.
void FlcDirectory::JoinAbove(size_t block) {
  for (size_t node = (mInner.size() + block) / 2; node > 0; node /= 2) Join(node);
}

void FlcDirectory::Join(size_t node) {
  const Ends left = EndsOf(2 * node);
  const Ends right = EndsOf(2 * node + 1);
  mInner[node] = {std::min(left.earliest, right.earliest), std::max(left.latest, right.latest)};
}

void FlcDirectory::JoinAll() {
  for (size_t node = mInner.size(); --node > 0;) Join(node);
}
