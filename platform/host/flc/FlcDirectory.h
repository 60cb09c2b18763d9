// The record files of one data directory as the file list cache keeps them: some 12.5 bytes a file, since a
// recorder has hundreds of thousands of them.
//
// Threads: none of this is locked; the cache's own mutex guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct FlcFile {
  uint32_t startTime;  // seconds since the epoch, never 0; the key
  uint32_t endTime;    // seconds since the epoch; 0 while in progress
  uint32_t channelMask;

  // What a look-up for these channels may answer: 0 and all ones ask for any file, and what a file in progress
  // will hold isn't known yet.
  bool Passes(uint32_t mask) const {
    return mask == 0 || mask == UINT32_MAX || endTime == 0 || (channelMask & mask) != 0;
  }
};

// In ascending start order, in blocks of up to 128 files. A tree over the blocks knows when the files below
// each node end, so that recordings may end in any order: what looks for ends passes over whole subtrees.
// Pointers hold until the next change. Look-ups and changes take logarithmic time and look through a block or
// two (look-ups also through the files that fail the mask); positions take a step a block.
class FlcDirectory {
 public:
  FlcDirectory() = default;
  // Files in any order. Of several with one start time the one that ends last is kept: when a directory holds a
  // recording both in progress and completed, the completed one.
  explicit FlcDirectory(std::vector<FlcFile> files);

  size_t Count() const { return mCount; }
  const FlcFile& Oldest() const { return mBlocks.front().files.front(); }  // of at least one
  const FlcFile& Newest() const { return mBlocks.back().files.back(); }
  // No file reaches (see Covering) any further. 0: there is none.
  uint32_t LatestEnd() const { return EndsOf(1).latest; }

  void Add(const FlcFile& file);    // replaces the file of the same start time
  bool Remove(uint32_t startTime);  // false: there is none

  const FlcFile& At(size_t position) const;  // in start order, from 0
  size_t CountUpTo(uint32_t time) const;     // files that start at or before the time

  // Each of these answers the first or last file that passes the mask, or null.
  const FlcFile* FirstFrom(uint32_t time, uint32_t mask) const;  // starts at or after the time
  const FlcFile* LastUpTo(uint32_t time, uint32_t mask) const;   // starts at or before the time
  // The file that starts at the time, else the first that reaches it: its end is at or after the time. A file
  // in progress reaches up to the start of the next one, the last one for ever.
  const FlcFile* Covering(uint32_t time, uint32_t mask) const;

  // Of the completed files that start before `to`, end at or after `from` and pass the mask, the first `limit`
  // by end time, then start time. Answers how many there are in `out`.
  size_t InInterval(uint32_t from, uint32_t to, uint32_t mask, size_t limit, FlcFile* out) const;

 private:
  struct Ends {
    uint32_t earliest = UINT32_MAX;  // of completed files
    uint32_t latest = 0;             // as files reach, see Covering
  };
  struct Block {
    std::vector<FlcFile> files;  // never empty
    uint32_t firstStart = 0;
    Ends ends = {};
    bool isAscending = true;  // each file reaches at least as far as the one before it
  };

  size_t BlockOf(uint32_t time) const;
  size_t FirstReaching(size_t block, uint32_t time) const;
  uint32_t Reach(size_t block, size_t offset) const;
  Ends EndsOf(size_t node) const;
  size_t NextBlock(size_t block, uint32_t from, uint32_t to) const;
  void InsertBlock(size_t at);
  void Changed(size_t block);
  void Summarize(size_t block);
  void Include(size_t block, size_t offset);
  void JoinAbove(size_t block);
  void Join(size_t node);
  void JoinAll();

  size_t mCount = 0;
  std::vector<Block> mBlocks;
  // The tree: node 1 is the root, those below node n are 2n and 2n + 1. As many inner nodes as the next power
  // of two to the blocks (node 0 is not used); the nodes from there on are the blocks' own.
  std::vector<Ends> mInner;
};
