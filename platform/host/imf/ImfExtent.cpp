#include "platform/host/imf/ImfExtent.h"

#include <algorithm>
#include <cmath>

#include "platform/host/imf/ImfFormat.h"

namespace imf {

namespace {

// No packet lasts longer: a source that claims so has lost its clock, and must not move the recording's end.
constexpr double kDurationLimit = 24 * 3600 * 1e6;  // microseconds

}  // namespace

void Extent::Add(const Chunk& chunk, const uint8_t* payload) {
  if (chunk.type == kPacketChunk) return AddPacket(chunk);
  ImfStreamInfo stream;
  if (chunk.type != kStreamChunk || !DecodeStream(payload, chunk.length, &stream)) return;
  mTimeBase[chunk.channel][static_cast<int>(chunk.kind)][chunk.number] =
      1e6 * stream.timeBaseNumerator / stream.timeBaseDenominator;
}

// In microseconds; 0 when it can't be, or when the time base is not known.
int64_t Extent::DurationOf(const Chunk& packet) const {
  const double timeBase = mTimeBase[packet.channel][static_cast<int>(packet.kind)][packet.number];
  const double length = static_cast<double>(packet.duration) * timeBase;
  return length > 0 && length <= kDurationLimit ? std::llround(length) : 0;
}

void Extent::AddPacket(const Chunk& packet) {
  mHasPacket = true;
  int64_t end = packet.time;
  if (__builtin_add_overflow(packet.time, DurationOf(packet), &end)) end = INT64_MAX;
  mEnd = std::max(mEnd, end);

  ImfChannelSummary& channel = mChannels[packet.channel];
  if (packet.kind != ImfKind::kVideo) {
    ++channel.soundPackets;
    return;
  }
  mChannelMask |= 1u << packet.channel;
  const bool isFirst = channel.pictures++ == 0;
  channel.first = isFirst ? packet.time : std::min(channel.first, packet.time);
  channel.last = isFirst ? packet.time : std::max(channel.last, packet.time);
  channel.end = isFirst ? end : std::max(channel.end, end);
}

ImfEntry Extent::EntryOf(const Chunk& chunk, uint64_t offset) const {
  ImfEntry entry;
  entry.offset = offset;
  entry.length = chunk.length;
  entry.isPacket = chunk.type == kPacketChunk;
  entry.channel = chunk.channel;
  entry.kind = chunk.kind;
  entry.number = chunk.number;
  entry.keyFrame = chunk.keyFrame;
  entry.time = chunk.time;
  entry.duration = static_cast<uint32_t>(std::min<int64_t>(DurationOf(chunk), UINT32_MAX));
  return entry;
}

uint32_t Extent::EndTime(uint32_t startTime) const {
  int64_t seconds = mEnd / 1000000;
  if (mEnd % 1000000 > 0) ++seconds;
  seconds = std::max<int64_t>(seconds, int64_t{startTime} + 1);
  return static_cast<uint32_t>(std::min<int64_t>(seconds, kTimeLimit));
}

}  // namespace imf
