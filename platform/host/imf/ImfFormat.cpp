#include "platform/host/imf/ImfFormat.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace imf {

namespace {

constexpr uint32_t kIdentityMagic = 0x52464d49;    // "IMFR"
constexpr uint32_t kCheckpointMagic = 0x50464d49;  // "IMFP"
constexpr uint32_t kChunkMagic = 0x43464d49;       // "IMFC"
constexpr uint32_t kVersion = 1;

constexpr size_t kIdentityCrcOffset = 24;
constexpr size_t kCheckpointCrcOffset = 44;
constexpr size_t kChunkCrcOffset = 60;
constexpr size_t kStreamFixed = 40;
constexpr size_t kCodecNameLimit = 255;

// No packet lasts longer: a source that claims so has lost its clock, and must not move the recording's end.
constexpr double kDurationLimit = 24 * 3600 * 1e6;  // microseconds

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

}  // namespace

uint32_t Crc(const void* data, size_t length) {
  return static_cast<uint32_t>(crc32_z(0, static_cast<const Bytef*>(data), length));
}

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
  return true;
}

void EncodeChunk(const Chunk& chunk, uint8_t* header) {
  Put(header, kChunkMagic);
  header[4] = chunk.type;
  header[5] = chunk.channel;
  Put(header + 6, uint16_t{chunk.keyFrame});
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
  chunk->keyFrame = (header[6] & 1) != 0;
  chunk->generation = Get64(header + kChunkGenerationOffset);
  chunk->sequence = Get32(header + 16);
  chunk->length = Get32(header + 20);
  chunk->time = GetSigned64(header + 24);
  chunk->pts = GetSigned64(header + 32);
  chunk->dts = GetSigned64(header + 40);
  chunk->duration = GetSigned64(header + 48);
  chunk->payloadCrc = Get32(header + 56);
  return (chunk->type == kStreamChunk || chunk->type == kPacketChunk) && chunk->channel < IMF_CHANNEL_LIMIT &&
         chunk->length <= kPayloadLimit;
}

void EncodeGeneration(uint64_t generation, uint8_t* bytes) { Put(bytes, generation); }

std::vector<uint8_t> EncodeStream(const ImfStreamInfo& stream) {
  const size_t nameLength = std::min(stream.codecName.size(), kCodecNameLimit);
  std::vector<uint8_t> payload(kStreamFixed + nameLength + stream.extraData.size());
  uint8_t* p = payload.data();
  Put(p, stream.codecTag);
  const int32_t values[] = {stream.profile,
                            stream.level,
                            stream.width,
                            stream.height,
                            stream.timeBaseNumerator,
                            stream.timeBaseDenominator,
                            stream.frameRateNumerator,
                            stream.frameRateDenominator};
  size_t offset = 4;
  for (int32_t value : values) {
    Put(p + offset, static_cast<uint32_t>(value));
    offset += 4;
  }
  Put(p + offset, static_cast<uint32_t>(nameLength));
  uint8_t* const text = p + kStreamFixed;
  std::copy_n(stream.codecName.begin(), nameLength, text);
  std::copy(stream.extraData.begin(), stream.extraData.end(), text + nameLength);
  return payload;
}

bool DecodeStream(const uint8_t* payload, size_t length, ImfStreamInfo* stream) {
  if (length < kStreamFixed) return false;
  stream->codecTag = Get32(payload);
  int32_t* const values[] = {&stream->profile,
                             &stream->level,
                             &stream->width,
                             &stream->height,
                             &stream->timeBaseNumerator,
                             &stream->timeBaseDenominator,
                             &stream->frameRateNumerator,
                             &stream->frameRateDenominator};
  size_t offset = 4;
  for (int32_t* value : values) {
    *value = static_cast<int32_t>(Get32(payload + offset));
    offset += 4;
  }
  const size_t nameLength = Get32(payload + offset);
  if (nameLength > kCodecNameLimit || nameLength > length - kStreamFixed) return false;
  if (stream->timeBaseNumerator <= 0 || stream->timeBaseDenominator <= 0) return false;
  const uint8_t* name = payload + kStreamFixed;
  stream->codecName.assign(name, name + nameLength);
  stream->extraData.assign(name + nameLength, payload + length);
  return true;
}

void Extent::AddStream(const ImfStreamInfo& stream) {
  mTimeBase[stream.channel] = 1e6 * stream.timeBaseNumerator / stream.timeBaseDenominator;
}

void Extent::AddPacket(int channel, int64_t time, int64_t duration) {
  mChannelMask |= 1u << channel;
  const double length = static_cast<double>(duration) * mTimeBase[channel];
  int64_t end = time;
  if (length > 0 && length <= kDurationLimit && __builtin_add_overflow(time, std::llround(length), &end)) {
    end = INT64_MAX;
  }
  mEnd = std::max(mEnd, end);
}

uint32_t Extent::EndTime(uint32_t startTime) const {
  int64_t seconds = mEnd / 1000000;
  if (mEnd % 1000000 > 0) ++seconds;
  seconds = std::max<int64_t>(seconds, int64_t{startTime} + 1);
  return static_cast<uint32_t>(std::min<int64_t>(seconds, kTimeLimit));
}

int OpenRegular(const std::string& path, int flags) {
  // Looking first keeps the open from waking a device or a pipe that lies there; the flags make sure of it.
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) return -1;
  int file = -1;
  if (S_ISREG(info.st_mode)) {
    file = open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file < 0 && errno != ELOOP) return -1;
  }
  if (file >= 0 && fstat(file, &info) == 0 && S_ISREG(info.st_mode)) return file;
  if (file >= 0) close(file);
  errno = EISDIR;
  return -1;
}

int64_t ReadAt(int file, void* buffer, size_t length, uint64_t offset) {
  size_t done = 0;
  while (done < length) {
    const ssize_t got =
        pread(file, static_cast<char*>(buffer) + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<int64_t>(done);
}

bool WriteAt(int file, const void* buffer, size_t length, uint64_t offset) {
  size_t done = 0;
  while (done < length) {
    const ssize_t put =
        pwrite(file, static_cast<const char*>(buffer) + done, length - done, static_cast<off_t>(offset + done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    done += static_cast<size_t>(put);
  }
  return true;
}

bool ReadIdentity(int file, Identity* identity) {
  uint8_t block[kBlock];
  const int64_t got = ReadAt(file, block, sizeof block, 0);
  if (got < 0) return false;
  errno = 0;
  return got == static_cast<int64_t>(sizeof block) && DecodeIdentity(block, identity);
}

bool ReadCheckpoint(int file, uint64_t generation, Checkpoint* checkpoint) {
  bool found = false;
  for (uint64_t slot = 0; slot < 2; ++slot) {
    uint8_t block[kBlock];
    Checkpoint candidate;
    if (ReadAt(file, block, sizeof block, CheckpointOffset(slot)) != static_cast<int64_t>(sizeof block))
      continue;
    if (!DecodeCheckpoint(block, &candidate) || candidate.generation != generation) continue;
    if (candidate.number % 2 != slot || candidate.number == 0) continue;
    if (found && candidate.number < checkpoint->number) continue;
    *checkpoint = candidate;
    found = true;
  }
  return found;
}

bool WriteCheckpoint(int file, const Checkpoint& checkpoint) {
  uint8_t block[kBlock];
  EncodeCheckpoint(checkpoint, block);
  return WriteAt(file, block, sizeof block, CheckpointOffset(checkpoint.number)) && fdatasync(file) == 0;
}

bool IsDeviceError(int error) {
  return error == EIO || error == ENODATA || error == EREMOTEIO || error == EILSEQ || error == EUCLEAN ||
         error == EBADMSG;
}

}  // namespace imf
