// The record files of one data directory as the file list cache keeps them, and how they are read from the
// directory's file names. 12 bytes a file, since a recorder has hundreds of thousands of them.
//
// Threads: none of this is locked; the cache's own mutex guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
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

// In ascending start order. Pointers and positions hold until the next change. Counts, ends and positions take
// constant time. Look-ups take logarithmic time (and skip the files that fail the mask one by one), except that
// what depends on end times reads the whole list while a recording in it ends after its successor does.
class FlcDirectory {
 public:
  FlcDirectory() = default;
  // Files in any order. Of several with one start time the one that ends last is kept: when a directory holds a
  // recording both in progress and completed, the completed one.
  explicit FlcDirectory(std::deque<FlcFile> files);

  size_t Count() const { return mFiles.size(); }
  const FlcFile& At(size_t position) const { return mFiles[position]; }

  void Add(const FlcFile& file);          // replaces the file of the same start time
  bool Remove(uint32_t startTime);        // false: there is none
  size_t CountUpTo(uint32_t time) const;  // files that start at or before the time

  // Each of these answers the first or last file that passes the mask, or null.
  const FlcFile* FirstFrom(uint32_t time, uint32_t mask) const;  // starts at or after the time
  const FlcFile* LastUpTo(uint32_t time, uint32_t mask) const;   // starts at or before the time
  // The file that starts at the time, else the first that reaches it: its end is at or after the time. A file
  // in progress reaches up to the start of the next one, the last one for ever.
  const FlcFile* Covering(uint32_t time, uint32_t mask) const;

  // Appends the completed files that start before `to`, end at or after `from` and pass the mask, by end time,
  // then start time, at most `limit`.
  void AppendInterval(uint32_t from, uint32_t to, uint32_t mask, size_t limit, std::vector<FlcFile>* out) const;

 private:
  size_t LowerBound(uint32_t startTime) const;
  uint32_t EffectiveEnd(size_t position) const;
  size_t FirstReaching(uint32_t time) const;
  size_t DisorderAround(size_t position, size_t end) const;

  std::deque<FlcFile> mFiles;
  size_t mDisorder = 0;  // files whose effective end lies after their successor's; at 0 the ends ascend, too
};

// Reads the names of data directory `index` of the disk directory `disk`: DISK/data_%08d, else another
// directory data_N of that number. 0 done; ENOENT when the disk has no such directory; else the errno of what
// kept it from being read to its end (ENODEV: there is no disk directory), which says nothing about its files.
int FlcReadDirectory(const std::string& disk, int32_t index, FlcDirectory* out);

// Appends the numbers of the data directories of the disk directory `disk`, in no order. 0 done, else an errno.
int FlcListDirectories(const std::string& disk, std::vector<int32_t>* out);
