// The bytes of a record file: its header blocks and its chunks. docs/FORMAT.md has the layout; these functions
// are the only place that knows it. No state, no threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/imf/ImfRecord.h"

namespace imf {

constexpr size_t kBlock = 4096;               // what a device may tear or lose in one piece
constexpr uint64_t kDataOffset = 3 * kBlock;  // identity, two checkpoint slots, then the chunks
constexpr size_t kChunkHeader = 64;
constexpr uint64_t kAlignment = 8;  // of chunks
constexpr uint32_t kPayloadLimit = 64u << 20;
// The writer makes a checkpoint at the latest after so many bytes; so behind the last checkpoint, damage is
// never longer than this and one chunk.
constexpr uint64_t kUnsyncedLimit = 64u << 20;
constexpr uint64_t kLookAhead = kUnsyncedLimit + kPayloadLimit;
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
  uint32_t endTime = 0;
  uint32_t channelMask = 0;
  bool closed = false;  // nothing follows: the writer or a repair was through with the file
};

enum ChunkType : uint8_t { kStreamChunk = 1, kPacketChunk = 2 };

struct Chunk {
  uint8_t type = 0;
  uint8_t channel = 0;
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

// Bytes that a chunk takes in the file.
inline uint64_t ChunkSize(uint32_t length) {
  return (kChunkHeader + uint64_t{length} + kAlignment - 1) & ~(kAlignment - 1);
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
// The channel is the chunk's and left alone. False: `stream` is in any state.
bool DecodeStream(const uint8_t* payload, size_t length, ImfStreamInfo* stream);

// What the chunks seen so far add up to.
class Extent {
 public:
  void AddStream(const ImfStreamInfo& stream);
  void AddPacket(int channel, int64_t time, int64_t duration);
  bool IsKnown(int channel) const { return mTimeBase[channel] > 0; }
  bool HasPacket() const { return mChannelMask != 0; }
  uint32_t ChannelMask() const { return mChannelMask; }
  // The largest end of a packet in seconds, rounded up; later than the start time and at most kTimeLimit,
  // whatever times the packets carry. The start time is below kTimeLimit.
  uint32_t EndTime(uint32_t startTime) const;

 private:
  double mTimeBase[IMF_CHANNEL_LIMIT] = {};  // microseconds; 0: unknown
  uint32_t mChannelMask = 0;
  int64_t mEnd = INT64_MIN;  // microseconds since the epoch
};

// Opens a regular file, not through a symbolic link. -1 with errno: EISDIR for whatever is not a regular file.
int OpenRegular(const std::string& path, int flags);
// All bytes or none; short at the end of the file only. The number of bytes read, -1 with errno.
int64_t ReadAt(int file, void* buffer, size_t length, uint64_t offset);
// All bytes. False with errno.
bool WriteAt(int file, const void* buffer, size_t length, uint64_t offset);

// False: no sound identity (errno 0) or it can't be read (errno).
bool ReadIdentity(int file, Identity* identity);
// The newest sound checkpoint of the generation. A slot that can't be read counts as not sound: writing the
// next checkpoint makes it readable again. False: there is none, and `checkpoint` is untouched.
bool ReadCheckpoint(int file, uint64_t generation, Checkpoint* checkpoint);
// Writes the checkpoint into its slot and makes it durable with all that was written before. False with errno.
bool WriteCheckpoint(int file, const Checkpoint& checkpoint);
inline uint64_t CheckpointOffset(uint64_t number) { return (1 + number % 2) * kBlock; }

// Whether an errno says that the device could not read or write, as opposed to a missing right, a missing
// device or a lack of memory, which say nothing about the file.
bool IsDeviceError(int error);

}  // namespace imf
