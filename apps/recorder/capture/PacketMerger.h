// Brings the packets of all channels into one order, that of their times, and gives each its time by its
// channel's clock. A packet waits a moment for those of other channels that may come before it; a channel that
// stands still holds nobody up for longer.
//
// Used under the lock of whoever owns it. Times are the machine's monotonic ones, microseconds, and are given.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "apps/recorder/capture/ChannelClock.h"
#include "apps/recorder/capture/Source.h"

namespace recorder {

class PacketMerger {
 public:
  explicit PacketMerger(size_t channels) : mChannels(channels) {}

  // `camera`: when the source says that the picture was taken, by the monotonic clock; only of trusted sources.
  void PutPacket(Sample sample, std::optional<int64_t> camera);
  // In the channel's order among its packets. After kChannelBack its packets are from a new connection; after
  // kChannelEnded none come.
  void PutEvent(SourceEvent event);

  // The next packet (its packet.time is monotonic) or event whose turn it is at `now`. With `drain`, whatever
  // is there. False: nothing as yet; something may be due at *again.
  bool Take(int64_t now, bool drain, SourceEvent* event, int64_t* again);

  size_t WaitingBytes(int channel) const { return mChannels[static_cast<size_t>(channel)].bytes; }
  bool IsCameraRefused(int channel) const {
    return mChannels[static_cast<size_t>(channel)].clock.IsCameraRefused();
  }

 private:
  struct Item {
    SourceEvent event;
    ChannelClock::Tie tie = 0;
    bool placed = false;
    int64_t decodeTime = 0;
  };
  struct Channel {
    ChannelClock clock;
    std::deque<Item> items;
    size_t bytes = 0;
    int64_t lastDecodeTime = 0;  // of the picture placed last
    bool expected = false;       // packets come, as far as is known
  };

  bool IsReady(Channel* channel, int64_t now, bool drain, int64_t* again);
  void Pop(Channel* channel, SourceEvent* event);

  std::vector<Channel> mChannels;
};

}  // namespace recorder
