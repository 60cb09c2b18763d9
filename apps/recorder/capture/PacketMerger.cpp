#include "apps/recorder/capture/PacketMerger.h"

#include <algorithm>
#include <utility>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr int64_t kPatience = kMicros / 4;   // for packets of other channels
constexpr int64_t kLearning = kMicros / 2;   // more of it, for those of a channel whose clock is still learning
constexpr size_t kLearningLimit = 8 * kMiB;  // a new connection with more than that in store is not held back

}  // namespace

void PacketMerger::PutPacket(Sample sample, std::optional<int64_t> camera) {
  Channel& channel = mChannels[static_cast<size_t>(sample.packet.channel)];
  Item item;
  if (sample.packet.kind == ImfKind::kVideo) {
    item.tie = channel.clock.Arrive(sample.arrival, sample.stamps, camera);
  }
  item.event.kind = SourceEvent::kPacket;
  item.event.channel = sample.packet.channel;
  item.event.sample = std::move(sample);
  channel.bytes += item.event.sample.packet.data.size();
  channel.expected = true;
  channel.items.push_back(std::move(item));
}

void PacketMerger::PutEvent(SourceEvent event) {
  Channel& channel = mChannels[static_cast<size_t>(event.channel)];
  channel.expected = false;
  if (event.kind == SourceEvent::kChannelBack) channel.clock.Reconnected();
  Item item;
  item.event = std::move(event);
  channel.items.push_back(std::move(item));
}

// Whether the channel's first item has a time.
bool PacketMerger::IsReady(Channel* channel, int64_t now, bool drain, int64_t* again) {
  if (channel->items.empty()) return false;
  Item& item = channel->items.front();
  if (item.placed || item.event.kind != SourceEvent::kPacket) return true;
  Sample& sample = item.event.sample;
  item.placed = true;
  if (sample.packet.kind != ImfKind::kVideo) {  // follows the picture before it, whose turn has come
    sample.packet.time = channel->clock.PlaceSound(sample.arrival, sample.stamps);
    item.decodeTime = channel->lastDecodeTime;
    return true;
  }
  const int64_t learned = channel->clock.LearnedAt(item.tie);
  const bool complete = drain || !channel->expected || channel->bytes > kLearningLimit;
  if (sample.stamps && learned > now && !complete) {
    *again = std::min(*again, learned);
    item.placed = false;
    return false;
  }
  sample.packet.time = channel->clock.Place(item.tie, sample.arrival, sample.stamps);
  item.decodeTime = sample.packet.time - sample.displayOffset;
  channel->lastDecodeTime = item.decodeTime;
  return true;
}

bool PacketMerger::Take(int64_t now, bool drain, SourceEvent* event, int64_t* again) {
  Channel* first = nullptr;
  int64_t patience = 0;  // for a channel that has nothing at the moment
  for (Channel& channel : mChannels) {
    if (!IsReady(&channel, now, drain, again)) {
      if (channel.expected) {
        patience = std::max(patience, channel.items.empty() ? kPatience : kPatience + kLearning);
      }
      continue;
    }
    if (channel.items.front().event.kind != SourceEvent::kPacket) {
      Pop(&channel, event);
      return true;
    }
    if (first == nullptr || channel.items.front().decodeTime < first->items.front().decodeTime)
      first = &channel;
  }
  if (first == nullptr) return false;
  const int64_t due = first->items.front().event.sample.arrival + patience;
  if (!drain && now < due) {
    *again = std::min(*again, due);
    return false;
  }
  Pop(first, event);
  return true;
}

void PacketMerger::Pop(Channel* channel, SourceEvent* event) {
  *event = std::move(channel->items.front().event);
  channel->items.pop_front();
  if (event->kind == SourceEvent::kPacket) channel->bytes -= event->sample.packet.data.size();
}

}  // namespace recorder
