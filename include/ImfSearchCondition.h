// What a search asks for. The library reads the first, second and fourth field.
#pragma once

#include <cstddef>
#include <cstdint>

struct ImfSearchCondition {
  int64_t startTime = 0;  // microseconds since the epoch
  int64_t endTime = 0;    // microseconds since the epoch
  int64_t reserved = 0;
  uint32_t channelMask = 0xffffffffu;  // bit n: recordings of channel n are wanted
};
static_assert(offsetof(ImfSearchCondition, endTime) == 8);
static_assert(offsetof(ImfSearchCondition, channelMask) == 24);
