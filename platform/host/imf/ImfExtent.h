// What the chunks of a recording add up to: its end, and what there is of each channel.
#pragma once

#include <array>
#include <cstdint>

#include "platform/host/imf/ImfFormat.h"

namespace imf {

class Extent {
 public:
  // A sound chunk: the parameters of a stream, with their payload, or a packet.
  void Add(const Chunk& chunk, const uint8_t* payload);
  bool IsKnown(int channel, ImfKind kind, int number) const {
    return mTimeBase[channel][static_cast<int>(kind)][number] > 0;
  }
  // As the index has a chunk that stands at `offset`.
  ImfEntry EntryOf(const Chunk& chunk, uint64_t offset) const;
  bool HasPacket() const { return mHasPacket; }
  // Channels with video.
  uint32_t ChannelMask() const { return mChannelMask; }
  // The largest end of a packet in seconds, rounded up; later than the start time and at most kTimeLimit,
  // whatever times the packets carry. The start time is below kTimeLimit.
  uint32_t EndTime(uint32_t startTime) const;
  const std::array<ImfChannelSummary, IMF_CHANNEL_LIMIT>& Channels() const { return mChannels; }

 private:
  void AddPacket(const Chunk& packet);
  int64_t DurationOf(const Chunk& packet) const;

  // Microseconds; 0: unknown.
  double mTimeBase[IMF_CHANNEL_LIMIT][IMF_KIND_LIMIT][IMF_STREAM_LIMIT] = {};
  uint32_t mChannelMask = 0;
  bool mHasPacket = false;
  int64_t mEnd = INT64_MIN;  // microseconds since the epoch
  std::array<ImfChannelSummary, IMF_CHANNEL_LIMIT> mChannels;
};

}  // namespace imf
