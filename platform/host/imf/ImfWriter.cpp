#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/host/imf/ImfCoverage.h"
#include "platform/host/imf/ImfExtent.h"
#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/ImfStorage.h"

using Clock = std::chrono::steady_clock;

struct ImfWriter::State {
  int file = -1;
  uint32_t startTime = 0;
  uint64_t generation = 0;
  uint64_t capacity = 0;  // whole blocks
  uint64_t used = 0;
  uint32_t sequence = 0;
  imf::Extent extent;
  ImfCoverage coverage;
  // What the last block holds so far, if it is not full: it is written again with what follows, so that the
  // kernel never has to read what the old recording left in the rest of it.
  std::array<uint8_t, imf::kBlock> tail;

  std::chrono::seconds interval{2};
  uint64_t checkpoints = 0;
  uint64_t checkpointUsed = 0;
  Clock::time_point checkpointTime;
  imf::Index index;  // the next piece: of the chunks since the last one
  std::vector<ImfEntry> entries;
  uint64_t lastIndex = 0;

  bool Stamp();
  bool AppendIndex();
  bool Checkpoint(bool closed);
  bool HasRoomFor(uint64_t size) const;
  bool Put(imf::Chunk chunk, const uint8_t* payload);
  ImfWriteResult Append(imf::Chunk chunk, const std::vector<uint8_t>& payload);
  ImfWriteResult CheckpointIfDue();
};

namespace {

bool NewGeneration(uint64_t old, uint64_t* generation) {
  do {
    if (getrandom(generation, sizeof *generation, 0) != static_cast<ssize_t>(sizeof *generation)) return false;
  } while (*generation == 0 || *generation == old);
  return true;
}

// One system call unless the kernel takes the bytes in pieces.
bool WriteVector(int file, struct iovec* parts, int count, uint64_t offset) {
  while (count > 0) {
    const ssize_t put = pwritev(file, parts, count, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    size_t left = static_cast<size_t>(put);
    offset += left;
    while (count > 0 && left >= parts->iov_len) {
      left -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char*>(parts->iov_base) + left;
      parts->iov_len -= left;
    }
  }
  return true;
}

// Of an ImfStreamInfo or an ImfPacket.
template <typename Part>
bool IsStream(const Part& part) {
  return part.channel >= 0 && part.channel < IMF_CHANNEL_LIMIT && part.number >= 0 &&
         part.number < IMF_STREAM_LIMIT && static_cast<int>(part.kind) < IMF_KIND_LIMIT;
}

template <typename Part>
imf::Chunk ChunkOf(imf::ChunkType type, const Part& part) {
  imf::Chunk chunk;
  chunk.type = type;
  chunk.channel = static_cast<uint8_t>(part.channel);
  chunk.kind = part.kind;
  chunk.number = static_cast<uint8_t>(part.number);
  return chunk;
}

}  // namespace

// From here on every older chunk is void. That has to be durable before the first new chunk is written:
// otherwise a power cut could leave the old header in front of a mixture of both recordings.
bool ImfWriter::State::Stamp() {
  imf::Identity old;
  imf::ReadIdentity(file, &old);  // unreadable or none at all: any generation differs from it
  if (!NewGeneration(old.generation, &generation)) return false;
  imf::Identity identity;
  identity.startTime = startTime;
  identity.generation = generation;
  std::vector<uint8_t> header(imf::kDataOffset);
  imf::EncodeIdentity(identity, header.data());
  return imf::WriteAt(file, header.data(), header.size(), 0) && fdatasync(file) == 0;
}

// Ends at the end of a block. So what the checkpoint makes durable is never written again, and a device that
// loses a block while it writes it can't lose a packet that was safe already.
bool ImfWriter::State::AppendIndex() {
  if (entries.empty()) return true;
  index.previous = lastIndex;
  index.count = static_cast<uint32_t>(entries.size());
  std::vector<uint8_t> payload(imf::IndexSize(used, index.count) - imf::kChunkHeader);
  imf::EncodeIndex(index, entries.data(), payload.data());
  imf::Chunk chunk;
  chunk.type = imf::kIndexChunk;
  chunk.length = static_cast<uint32_t>(payload.size());
  const uint64_t offset = used;
  if (!Put(chunk, payload.data())) return false;
  lastIndex = offset;
  index.base = used;
  index.sequence = sequence;
  entries.clear();
  return true;
}

bool ImfWriter::State::Checkpoint(bool closed) {
  if (!AppendIndex()) return false;
  imf::Checkpoint checkpoint;
  checkpoint.generation = generation;
  checkpoint.number = ++checkpoints;
  checkpoint.used = used;
  checkpoint.index = lastIndex;
  checkpoint.endTime = extent.EndTime(startTime);
  checkpoint.channelMask = extent.ChannelMask();
  checkpoint.channels = extent.Channels();
  checkpoint.closed = closed;
  if (!imf::WriteCheckpoint(file, checkpoint)) return false;
  checkpointUsed = used;
  checkpointTime = Clock::now();
  return true;
}

ImfWriteResult ImfWriter::State::CheckpointIfDue() {
  const bool due = used - checkpointUsed >= imf::kUnsyncedLimit || entries.size() >= imf::kIndexLimit ||
                   Clock::now() - checkpointTime >= interval;
  return !due || Checkpoint(false) ? ImfWriteResult::kWritten : ImfWriteResult::kFailed;
}

// The index of it and of what is not in the index yet has to have room behind it.
bool ImfWriter::State::HasRoomFor(uint64_t size) const {
  return size <= capacity - used && imf::IndexSize(used + size, entries.size() + 1) <= capacity - used - size;
}

// From the begin of the last block to the end of one, in one system call.
bool ImfWriter::State::Put(imf::Chunk chunk, const uint8_t* payload) {
  const size_t length = chunk.length;
  static const uint8_t kZeros[imf::kBlock] = {};
  chunk.generation = generation;
  chunk.sequence = sequence;
  chunk.payloadCrc = imf::Crc(payload, length);
  const uint64_t end = used + imf::ChunkSize(chunk.length);
  const size_t before = used % imf::kBlock;
  uint8_t header[imf::kChunkHeader];
  imf::EncodeChunk(chunk, header);
  struct iovec parts[] = {
      {tail.data(), before},
      {header, sizeof header},
      {const_cast<uint8_t*>(payload), length},
      {const_cast<uint8_t*>(kZeros), imf::AlignUp(end, imf::kBlock) - used - sizeof header - length}};
  if (!WriteVector(file, parts, 4, used - before)) return false;

  // Of the last block: what it held, header and payload as far as they reach into it.
  const uint64_t block = end - end % imf::kBlock;
  const auto keep = [this, block](uint64_t at, const uint8_t* bytes, size_t size) {
    const uint64_t skip = at < block ? std::min<uint64_t>(block - at, size) : 0;
    if (skip < size) std::memcpy(tail.data() + (at + skip - block), bytes + skip, size - skip);
  };
  keep(used, header, sizeof header);
  keep(used + sizeof header, payload, length);
  keep(used + sizeof header + length, kZeros, end - used - sizeof header - length);
  used = end;
  ++sequence;
  return true;
}

ImfWriteResult ImfWriter::State::Append(imf::Chunk chunk, const std::vector<uint8_t>& payload) {
  if (payload.size() > imf::kPayloadLimit) return ImfWriteResult::kFull;
  chunk.length = static_cast<uint32_t>(payload.size());
  if (!HasRoomFor(imf::ChunkSize(chunk.length))) return ImfWriteResult::kFull;
  const ImfEntry entry = extent.EntryOf(chunk, used);
  if (!Put(chunk, payload.data())) return ImfWriteResult::kFailed;
  extent.Add(chunk, payload.data());
  entries.push_back(entry);
  coverage.Add(entry);
  return CheckpointIfDue();
}

ImfWriter::ImfWriter() : mState(std::make_unique<State>()) {}

ImfWriter::~ImfWriter() {
  if (IsOpen()) close(mState->file);
}

bool ImfWriter::Open(const std::string& path, uint32_t startTime) {
  if (IsOpen() || startTime == 0 || startTime >= imf::kTimeLimit) {
    errno = IsOpen() ? EBUSY : EINVAL;
    return false;
  }
  const int file = imf::OpenRegular(path, O_RDWR);
  if (file < 0) return false;
  auto state = std::make_unique<State>();
  state->file = file;
  state->startTime = startTime;
  state->interval = mState->interval;
  struct stat info = {};
  int error = fstat(file, &info) != 0 ? errno : 0;
  state->capacity = static_cast<uint64_t>(info.st_size) / imf::kBlock * imf::kBlock;
  if (error == 0 && state->capacity <= imf::kDataOffset) error = EINVAL;
  if (error == 0 && !state->Stamp()) error = errno;
  if (error != 0) {
    close(file);
    errno = error;
    return false;
  }
  state->used = imf::kDataOffset;
  state->checkpointUsed = state->used;
  state->index.base = state->used;
  state->checkpointTime = Clock::now();
  mState = std::move(state);
  return true;
}

ImfWriteResult ImfWriter::AddStream(const ImfStreamInfo& stream) {
  if (!IsOpen() || !IsStream(stream) || stream.timeBaseNumerator <= 0 || stream.timeBaseDenominator <= 0) {
    errno = IsOpen() ? EINVAL : EBADF;
    return ImfWriteResult::kFailed;
  }
  return mState->Append(ChunkOf(imf::kStreamChunk, stream), imf::EncodeStream(stream));
}

ImfWriteResult ImfWriter::Write(const ImfPacket& packet) {
  if (!IsOpen() || !IsStream(packet) || !mState->extent.IsKnown(packet.channel, packet.kind, packet.number)) {
    errno = IsOpen() ? EINVAL : EBADF;
    return ImfWriteResult::kFailed;
  }
  imf::Chunk chunk = ChunkOf(imf::kPacketChunk, packet);
  chunk.keyFrame = packet.keyFrame;
  chunk.time = packet.time;
  chunk.pts = packet.pts;
  chunk.dts = packet.dts;
  chunk.duration = packet.duration;
  return mState->Append(chunk, packet.data);
}

bool ImfWriter::CheckpointIfDue() {
  if (!IsOpen()) {
    errno = EBADF;
    return false;
  }
  return mState->used == mState->checkpointUsed || mState->CheckpointIfDue() == ImfWriteResult::kWritten;
}

bool ImfWriter::Close() {
  if (!IsOpen()) {
    errno = EBADF;
    return false;
  }
  int error = mState->Checkpoint(true) ? 0 : errno;
  if (close(mState->file) != 0 && error == 0) error = errno;
  mState->file = -1;
  errno = error;
  return error == 0;
}

bool ImfWriter::IsOpen() const { return mState->file >= 0; }

uint32_t ImfWriter::EndTime() const { return mState->extent.EndTime(mState->startTime); }

uint32_t ImfWriter::ChannelMask() const { return mState->extent.ChannelMask(); }

const ImfChannelSummary& ImfWriter::Summary(int channel) const {
  return mState->extent.Channels()[static_cast<size_t>(channel)];
}

std::vector<PictureSpan> ImfWriter::Coverage() const { return mState->coverage.Spans(); }

uint64_t ImfWriter::Capacity() const { return mState->capacity; }

uint64_t ImfWriter::Used() const { return mState->used; }

uint64_t ImfWriter::Generation() const { return mState->generation; }

void ImfWriter::SetCheckpointInterval(int seconds) { mState->interval = std::chrono::seconds(seconds); }
