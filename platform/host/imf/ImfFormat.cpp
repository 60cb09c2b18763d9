#include "platform/host/imf/ImfFormat.h"

#include <libdeflate.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <type_traits>

namespace imf {

namespace {

constexpr uint32_t kIdentityMagic = 0x52464d49;    // "IMFR"
constexpr uint32_t kCheckpointMagic = 0x50464d49;  // "IMFP"
constexpr uint32_t kChunkMagic = 0x43464d49;       // "IMFC"
constexpr uint32_t kVersion = 2;

constexpr size_t kIdentityCrcOffset = 24;
constexpr size_t kCheckpointChannels = 64;
constexpr size_t kChannelSummary = 32;
constexpr size_t kCheckpointCrcOffset = kCheckpointChannels + IMF_CHANNEL_LIMIT * kChannelSummary;
constexpr size_t kChunkCrcOffset = 60;
constexpr size_t kStreamFixed = 80;
constexpr size_t kCodecNameLimit = 255;

constexpr uint8_t kNumberBits = 0x0f;  // of the last byte in front of the generation
constexpr uint8_t kKeyFrameBit = 0x80;

// Byte by byte, so that the file is the same on every machine; compilers make one store or load of it.
template <typename Unsigned>
void Put(uint8_t* to, Unsigned value) {
  for (size_t i = 0; i < sizeof(Unsigned); ++i) to[i] = static_cast<uint8_t>(value >> (8 * i));
}

template <typename Unsigned>
Unsigned Get(const uint8_t* from) {
  Unsigned value = 0;
  for (size_t i = 0; i < sizeof(Unsigned); ++i) value |= static_cast<Unsigned>(Unsigned{from[i]} << (8 * i));
  return value;
}

uint32_t Get32(const uint8_t* from) { return Get<uint32_t>(from); }
uint64_t Get64(const uint8_t* from) { return Get<uint64_t>(from); }
void PutSigned64(uint8_t* to, int64_t value) { Put(to, static_cast<uint64_t>(value)); }
int64_t GetSigned64(const uint8_t* from) { return static_cast<int64_t>(Get64(from)); }

uint8_t NumberAndKey(int number, bool keyFrame) {
  return static_cast<uint8_t>((number & kNumberBits) | (keyFrame ? kKeyFrameBit : 0));
}

}  // namespace

uint32_t Crc(const void* data, size_t length) { return libdeflate_crc32(0, data, length); }

void EncodeIdentity(const Identity& identity, uint8_t* block) {
  std::memset(block, 0, kBlock);
  Put(block, kIdentityMagic);
  Put(block + 4, kVersion);
  Put(block + 8, identity.generation);
  Put(block + 16, identity.startTime);
  Put(block + kIdentityCrcOffset, Crc(block, kIdentityCrcOffset));
}

bool DecodeIdentity(const uint8_t* block, Identity* identity) {
  if (Get32(block) != kIdentityMagic || Get32(block + 4) != kVersion) return false;
  if (Get32(block + kIdentityCrcOffset) != Crc(block, kIdentityCrcOffset)) return false;
  identity->generation = Get64(block + 8);
  identity->startTime = Get32(block + 16);
  return identity->generation != 0;
}

void EncodeCheckpoint(const Checkpoint& checkpoint, uint8_t* block) {
  std::memset(block, 0, kBlock);
  Put(block, kCheckpointMagic);
  Put(block + 4, uint32_t{checkpoint.closed});
  Put(block + 8, checkpoint.generation);
  Put(block + 16, checkpoint.number);
  Put(block + 24, checkpoint.used);
  Put(block + 32, checkpoint.endTime);
  Put(block + 36, checkpoint.channelMask);
  Put(block + 40, checkpoint.index);
  uint8_t* at = block + kCheckpointChannels;
  for (const ImfChannelSummary& channel : checkpoint.channels) {
    PutSigned64(at, channel.first);
    PutSigned64(at + 8, channel.last);
    PutSigned64(at + 16, channel.end);
    Put(at + 24, channel.pictures);
    Put(at + 28, channel.soundPackets);
    at += kChannelSummary;
  }
  Put(block + kCheckpointCrcOffset, Crc(block, kCheckpointCrcOffset));
}

bool DecodeCheckpoint(const uint8_t* block, Checkpoint* checkpoint) {
  if (Get32(block) != kCheckpointMagic) return false;
  if (Get32(block + kCheckpointCrcOffset) != Crc(block, kCheckpointCrcOffset)) return false;
  checkpoint->closed = (Get32(block + 4) & 1) != 0;
  checkpoint->generation = Get64(block + 8);
  checkpoint->number = Get64(block + 16);
  checkpoint->used = Get64(block + 24);
  checkpoint->endTime = std::min(Get32(block + 32), kTimeLimit);
  checkpoint->channelMask = Get32(block + 36);
  checkpoint->index = Get64(block + 40);
  const uint8_t* at = block + kCheckpointChannels;
  for (ImfChannelSummary& channel : checkpoint->channels) {
    channel.first = GetSigned64(at);
    channel.last = GetSigned64(at + 8);
    channel.end = GetSigned64(at + 16);
    channel.pictures = Get32(at + 24);
    channel.soundPackets = Get32(at + 28);
    at += kChannelSummary;
  }
  return true;
}

bool Checkpoint::operator==(const Checkpoint& other) const {
  uint8_t blocks[2][kBlock];
  EncodeCheckpoint(*this, blocks[0]);
  EncodeCheckpoint(other, blocks[1]);
  return std::memcmp(blocks[0], blocks[1], kBlock) == 0;
}

void EncodeChunk(const Chunk& chunk, uint8_t* header) {
  Put(header, kChunkMagic);
  header[4] = chunk.type;
  header[5] = chunk.channel;
  header[6] = static_cast<uint8_t>(chunk.kind);
  header[7] = NumberAndKey(chunk.number, chunk.keyFrame);
  EncodeGeneration(chunk.generation, header + kChunkGenerationOffset);
  Put(header + 16, chunk.sequence);
  Put(header + 20, chunk.length);
  PutSigned64(header + 24, chunk.time);
  PutSigned64(header + 32, chunk.pts);
  PutSigned64(header + 40, chunk.dts);
  PutSigned64(header + 48, chunk.duration);
  Put(header + 56, chunk.payloadCrc);
  Put(header + kChunkCrcOffset, Crc(header, kChunkCrcOffset));
}

bool DecodeChunk(const uint8_t* header, Chunk* chunk) {
  if (Get32(header) != kChunkMagic) return false;
  if (Get32(header + kChunkCrcOffset) != Crc(header, kChunkCrcOffset)) return false;
  chunk->type = header[4];
  chunk->channel = header[5];
  chunk->kind = static_cast<ImfKind>(header[6]);
  chunk->number = header[7] & kNumberBits;
  chunk->keyFrame = (header[7] & kKeyFrameBit) != 0;
  chunk->generation = Get64(header + kChunkGenerationOffset);
  chunk->sequence = Get32(header + 16);
  chunk->length = Get32(header + 20);
  chunk->time = GetSigned64(header + 24);
  chunk->pts = GetSigned64(header + 32);
  chunk->dts = GetSigned64(header + 40);
  chunk->duration = GetSigned64(header + 48);
  chunk->payloadCrc = Get32(header + 56);
  return chunk->type >= kStreamChunk && chunk->type <= kIndexChunk && chunk->channel < IMF_CHANNEL_LIMIT &&
         header[6] < IMF_KIND_LIMIT && chunk->length <= kPayloadLimit;
}

void ToPacket(const Chunk& chunk, ImfPacket* packet) {
  packet->channel = chunk.channel;
  packet->kind = chunk.kind;
  packet->number = chunk.number;
  packet->keyFrame = chunk.keyFrame;
  packet->time = chunk.time;
  packet->pts = chunk.pts;
  packet->dts = chunk.dts;
  packet->duration = chunk.duration;
}

void EncodeGeneration(uint64_t generation, uint8_t* bytes) { Put(bytes, generation); }

namespace {

// The fields of 32 bits in the order in which they stand in the file.
template <typename Stream>
auto FieldsOf(Stream& stream) {
  using Field = std::conditional_t<std::is_const_v<Stream>, const int32_t, int32_t>;
  return std::array<std::reference_wrapper<Field>, 15>{stream.profile,
                                                       stream.level,
                                                       stream.width,
                                                       stream.height,
                                                       stream.timeBaseNumerator,
                                                       stream.timeBaseDenominator,
                                                       stream.frameRateNumerator,
                                                       stream.frameRateDenominator,
                                                       stream.sampleRate,
                                                       stream.audioChannels,
                                                       stream.sampleFormat,
                                                       stream.frameSize,
                                                       stream.blockAlign,
                                                       stream.bitsPerCodedSample,
                                                       stream.initialPadding};
}

}  // namespace

std::vector<uint8_t> EncodeStream(const ImfStreamInfo& stream) {
  const size_t nameLength = std::min(stream.codecName.size(), kCodecNameLimit);
  std::vector<uint8_t> payload(kStreamFixed + nameLength + stream.extraData.size());
  uint8_t* p = payload.data();
  Put(p, stream.codecTag);
  size_t offset = 4;
  for (int32_t value : FieldsOf(stream)) {
    Put(p + offset, static_cast<uint32_t>(value));
    offset += 4;
  }
  Put(p + offset, stream.audioLayout);
  Put(p + offset + 8, static_cast<uint32_t>(nameLength));
  uint8_t* const text = p + kStreamFixed;
  std::copy_n(stream.codecName.begin(), nameLength, text);
  std::copy(stream.extraData.begin(), stream.extraData.end(), text + nameLength);
  return payload;
}

bool DecodeStream(const uint8_t* payload, size_t length, ImfStreamInfo* stream) {
  if (length < kStreamFixed) return false;
  stream->codecTag = Get32(payload);
  size_t offset = 4;
  for (int32_t& value : FieldsOf(*stream)) {
    value = static_cast<int32_t>(Get32(payload + offset));
    offset += 4;
  }
  stream->audioLayout = Get64(payload + offset);
  const size_t nameLength = Get32(payload + offset + 8);
  if (nameLength > kCodecNameLimit || nameLength > length - kStreamFixed) return false;
  if (stream->timeBaseNumerator <= 0 || stream->timeBaseDenominator <= 0) return false;
  const uint8_t* name = payload + kStreamFixed;
  stream->codecName.assign(name, name + nameLength);
  stream->extraData.assign(name + nameLength, payload + length);
  return true;
}

void EncodeIndex(const Index& index, const ImfEntry* entries, uint8_t* payload) {
  Put(payload, index.previous);
  Put(payload + 8, index.base);
  Put(payload + 16, index.sequence);
  Put(payload + 20, index.count);
  uint8_t* at = payload + kIndexHeader;
  for (uint32_t i = 0; i < index.count; ++i, at += kIndexEntry) {
    const ImfEntry& entry = entries[i];
    PutSigned64(at, entry.time);
    Put(at + 8, static_cast<uint32_t>(entry.offset - index.base));
    Put(at + 12, entry.length);
    Put(at + 16, entry.duration);
    at[20] = entry.isPacket ? kPacketChunk : kStreamChunk;
    at[21] = static_cast<uint8_t>(entry.channel);
    at[22] = static_cast<uint8_t>(entry.kind);
    at[23] = NumberAndKey(entry.number, entry.keyFrame);
  }
}

bool DecodeIndex(const uint8_t* payload, size_t length, Index* index) {
  if (length < kIndexHeader) return false;
  index->previous = Get64(payload);
  index->base = Get64(payload + 8);
  index->sequence = Get32(payload + 16);
  index->count = Get32(payload + 20);
  return index->count <= kIndexLimit && index->count <= (length - kIndexHeader) / kIndexEntry;
}

bool DecodeEntries(const uint8_t* payload, const Index& index, uint64_t offset,
                   std::vector<ImfEntry>* entries) {
  entries->resize(index.count);
  uint64_t position = index.base;
  const uint8_t* at = payload + kIndexHeader;
  for (ImfEntry& entry : *entries) {
    entry.time = GetSigned64(at);
    entry.offset = index.base + Get32(at + 8);
    entry.length = Get32(at + 12);
    entry.duration = Get32(at + 16);
    entry.isPacket = at[20] == kPacketChunk;
    entry.channel = at[21];
    entry.kind = static_cast<ImfKind>(at[22]);
    entry.number = at[23] & kNumberBits;
    entry.keyFrame = (at[23] & kKeyFrameBit) != 0;
    if (!entry.isPacket && at[20] != kStreamChunk) return false;
    if (at[21] >= IMF_CHANNEL_LIMIT || at[22] >= IMF_KIND_LIMIT) return false;
    if (entry.offset != position || entry.length > kPayloadLimit) return false;
    position += ChunkSize(entry.length);
    at += kIndexEntry;
  }
  return position == offset;
}

}  // namespace imf
