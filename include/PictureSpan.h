// A span of time in which a channel has pictures.
#pragma once

#include <cstdint>

struct PictureSpan {
  int32_t channel;  // 0 to 31
  int64_t begin;    // of the first picture, microseconds since the epoch
  int64_t end;      // when the last one is over

  bool operator==(const PictureSpan& other) const {
    return channel == other.channel && begin == other.begin && end == other.end;
  }
};
