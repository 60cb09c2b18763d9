// The bytes of a record file: its header blocks, its chunks and its index. docs/FORMAT.md has the layout; these
// functions are the only place that knows it. No state, no threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/host/imf/ImfRecord.h"

namespace imf {

// What a device may tear or lose in one piece, and what the kernel has to know whole before it can write any of
// it: only whole blocks are written.
constexpr size_t kBlock = 4096;
constexpr uint64_t kDataOffset = 3 * kBlock;  // identity, two checkpoint slots, then the chunks
constexpr size_t kChunkHeader = 64;
constexpr uint64_t kAlignment = 8;  // of chunks
constexpr uint32_t kPayloadLimit = 64u << 20;
// The writer makes a checkpoint at the latest after so many bytes; so behind the last checkpoint, damage is
// never longer than this and one chunk.
constexpr uint64_t kUnsyncedLimit = 64u << 20;
constexpr uint64_t kLookAhead = kUnsyncedLimit + kPayloadLimit;
constexpr uint32_t kIndexLimit = 65536;  // chunks in one piece of the index; it makes a checkpoint due, too
// Times are written into names as 32 bits, but the library's callers take them as signed.
constexpr uint32_t kTimeLimit = 2147483647;

// Which recording the file holds. Written once per recording, never touched while recording.
struct Identity {
  uint32_t startTime = 0;   // seconds since the epoch
  uint64_t generation = 0;  // never 0
};

// How far the recording is. Two slots in blocks of their own are written in turn, so that one always survives.
struct Checkpoint {
  uint64_t generation = 0;
  uint64_t number = 0;  // 1, 2, ...; 0: there is no checkpoint
  uint64_t used = 0;    // bytes of the file, a chunk boundary
  uint64_t index = 0;   // offset of the last piece of the index, 0: there is none
  uint32_t endTime = 0;
  uint32_t channelMask = 0;
  bool closed = false;  // nothing follows: the writer or a repair was through with the file
  std::array<ImfChannelSummary, IMF_CHANNEL_LIMIT> channels;

  bool operator==(const Checkpoint& other) const;
};

enum ChunkType : uint8_t { kStreamChunk = 1, kPacketChunk = 2, kIndexChunk = 3 };

struct Chunk {
  uint8_t type = 0;
  uint8_t channel = 0;
  ImfKind kind = ImfKind::kVideo;
  uint8_t number = 0;
  bool keyFrame = false;
  uint64_t generation = 0;
  uint32_t sequence = 0;  // ascends by one within a recording
  uint32_t length = 0;    // of the payload, bytes
  int64_t time = 0;
  int64_t pts = 0;
  int64_t dts = 0;
  int64_t duration = 0;
  uint32_t payloadCrc = 0;
};

inline uint64_t AlignUp(uint64_t offset, uint64_t alignment) {
  return (offset + alignment - 1) & ~(alignment - 1);
}

// All but the data, which is left alone.
void ToPacket(const Chunk& chunk, ImfPacket* packet);

// Bytes that a chunk takes in the file.
inline uint64_t ChunkSize(uint32_t length) { return AlignUp(kChunkHeader + uint64_t{length}, kAlignment); }

// What one piece of the index says: the chunks from `base` on, one behind the other up to the piece itself.
struct Index {
  uint64_t previous = 0;  // offset of the piece before, 0: this is the first
  uint64_t base = 0;
  uint32_t sequence = 0;  // of the chunk at `base`
  uint32_t count = 0;
};
constexpr size_t kIndexHeader = 24;  // in front of the entries
constexpr size_t kIndexEntry = 24;
// Bytes of a piece of the index at `offset`: it fills the last block that it touches, so that nothing that is
// made durable with it is ever written again.
inline uint64_t IndexSize(uint64_t offset, uint64_t count) {
  return AlignUp(offset + kChunkHeader + kIndexHeader + count * kIndexEntry, kBlock) - offset;
}

uint32_t Crc(const void* data, size_t length);

// Encoders fill a whole block, so that writing one never has to read it first. Decoders answer false for bytes
// that are not sound.
void EncodeIdentity(const Identity& identity, uint8_t* block);
bool DecodeIdentity(const uint8_t* block, Identity* identity);
void EncodeCheckpoint(const Checkpoint& checkpoint, uint8_t* block);
bool DecodeCheckpoint(const uint8_t* block, Checkpoint* checkpoint);
void EncodeChunk(const Chunk& chunk, uint8_t* header);
bool DecodeChunk(const uint8_t* header, Chunk* chunk);
// The first 16 bytes of every chunk of a recording hold its generation here.
constexpr size_t kChunkGenerationOffset = 8;
void EncodeGeneration(uint64_t generation, uint8_t* bytes);

std::vector<uint8_t> EncodeStream(const ImfStreamInfo& stream);
// Channel, kind and number are the chunk's and left alone. False: `stream` is in any state.
bool DecodeStream(const uint8_t* payload, size_t length, ImfStreamInfo* stream);

// `payload` has room for kIndexHeader and the entries.
void EncodeIndex(const Index& index, const ImfEntry* entries, uint8_t* payload);
// False: not the payload of a piece of the index.
bool DecodeIndex(const uint8_t* payload, size_t length, Index* index);
// The entries of a piece that stands at `offset`, as DecodeIndex gave it. False: they are not one behind the
// other from its base up to itself.
bool DecodeEntries(const uint8_t* payload, const Index& index, uint64_t offset, std::vector<ImfEntry>* entries);

}  // namespace imf
