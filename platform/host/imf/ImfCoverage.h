// When the channels of a recording really have pictures: found out the same way from what is being written and
// from a file.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "PictureSpan.h"
#include "platform/host/imf/ImfRecord.h"

// A span goes on until no picture came for more than 2 seconds or one and a half times the channel's usual
// distance from picture to picture, whichever is longer. That distance is the median of those seen, or how long
// the pictures claim to last as long as there are fewer than four of them. The last picture of a span lasts as
// long as it says, but not longer than that distance.
//
// Takes pictures in any order and a bounded amount of memory: some 3 MiB at most. Of a channel with more gaps
// than that holds, the shortest are given up.
class ImfCoverage {
 public:
  // Only packets of video count, and only times from 1970 on that anybody could mean.
  void Add(const ImfEntry& entry);
  // In the order of channels, and of time within each; disjoint.
  std::vector<PictureSpan> Spans() const;

 private:
  // Pictures that follow one another in 2 seconds at most.
  struct Run {
    int64_t first;  // microseconds since the epoch
    int64_t last;
    int64_t duration;  // of the last one, microseconds; 0 unknown
  };
  struct Channel {
    std::vector<Run> runs;  // in ascending order
    int64_t pictures = 0;
  };

  static int64_t IntervalOf(const Channel& channel);
  static std::vector<Run> Join(const std::vector<Run>& runs, int64_t limit);
  static void Shorten(Channel* channel);

  std::array<Channel, IMF_CHANNEL_LIMIT> mChannels;
};

// What a record file itself tells: by its index, and by walking what that does not list. Reads no picture.
// False when it can't be read or holds another recording than one that starts at `startTime` (seconds since the
// epoch); `spans` is as it was then.
bool ReadCoverage(const std::string& path, uint32_t startTime, std::vector<PictureSpan>* spans);
