#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfRecord.h"

using Clock = std::chrono::steady_clock;

struct ImfWriter::State {
  int file = -1;
  uint32_t startTime = 0;
  uint64_t generation = 0;
  uint64_t capacity = 0;
  uint64_t used = 0;
  uint32_t sequence = 0;
  imf::Extent extent;

  std::chrono::seconds interval{2};
  uint64_t checkpoints = 0;
  uint64_t checkpointUsed = 0;
  Clock::time_point checkpointTime;

  bool Stamp();
  bool Checkpoint(bool closed);
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

bool ImfWriter::State::Checkpoint(bool closed) {
  imf::Checkpoint checkpoint;
  checkpoint.generation = generation;
  checkpoint.number = ++checkpoints;
  checkpoint.used = used;
  checkpoint.endTime = extent.EndTime(startTime);
  checkpoint.channelMask = extent.ChannelMask();
  checkpoint.closed = closed;
  if (!imf::WriteCheckpoint(file, checkpoint)) return false;
  checkpointUsed = used;
  checkpointTime = Clock::now();
  return true;
}

ImfWriteResult ImfWriter::State::CheckpointIfDue() {
  const bool due = used - checkpointUsed >= imf::kUnsyncedLimit || Clock::now() - checkpointTime >= interval;
  return !due || Checkpoint(false) ? ImfWriteResult::kWritten : ImfWriteResult::kFailed;
}

ImfWriteResult ImfWriter::State::Append(imf::Chunk chunk, const std::vector<uint8_t>& payload) {
  if (payload.size() > imf::kPayloadLimit) return ImfWriteResult::kFull;
  chunk.length = static_cast<uint32_t>(payload.size());
  const uint64_t size = imf::ChunkSize(chunk.length);
  if (size > capacity - used) return ImfWriteResult::kFull;

  chunk.generation = generation;
  chunk.sequence = sequence;
  chunk.payloadCrc = imf::Crc(payload.data(), payload.size());
  uint8_t header[imf::kChunkHeader];
  imf::EncodeChunk(chunk, header);
  uint8_t padding[imf::kAlignment] = {};
  struct iovec parts[] = {{header, sizeof header},
                          {const_cast<uint8_t*>(payload.data()), payload.size()},
                          {padding, static_cast<size_t>(size) - sizeof header - payload.size()}};
  if (!WriteVector(file, parts, 3, used)) return ImfWriteResult::kFailed;
  used += size;
  ++sequence;
  return ImfWriteResult::kWritten;
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
  state->capacity = static_cast<uint64_t>(info.st_size);
  if (error == 0 && state->capacity < imf::kDataOffset + imf::kChunkHeader) error = EINVAL;
  if (error == 0 && !state->Stamp()) error = errno;
  if (error != 0) {
    close(file);
    errno = error;
    return false;
  }
  state->used = imf::kDataOffset;
  state->checkpointUsed = state->used;
  state->checkpointTime = Clock::now();
  mState = std::move(state);
  return true;
}

ImfWriteResult ImfWriter::AddStream(const ImfStreamInfo& stream) {
  if (!IsOpen() || stream.channel < 0 || stream.channel >= IMF_CHANNEL_LIMIT || stream.timeBaseNumerator <= 0 ||
      stream.timeBaseDenominator <= 0) {
    errno = IsOpen() ? EINVAL : EBADF;
    return ImfWriteResult::kFailed;
  }
  imf::Chunk chunk;
  chunk.type = imf::kStreamChunk;
  chunk.channel = static_cast<uint8_t>(stream.channel);
  const ImfWriteResult result = mState->Append(chunk, imf::EncodeStream(stream));
  if (result != ImfWriteResult::kWritten) return result;
  mState->extent.AddStream(stream);
  return mState->CheckpointIfDue();
}

ImfWriteResult ImfWriter::Write(const ImfPacket& packet) {
  if (!IsOpen() || packet.channel < 0 || packet.channel >= IMF_CHANNEL_LIMIT ||
      !mState->extent.IsKnown(packet.channel)) {
    errno = IsOpen() ? EINVAL : EBADF;
    return ImfWriteResult::kFailed;
  }
  imf::Chunk chunk;
  chunk.type = imf::kPacketChunk;
  chunk.channel = static_cast<uint8_t>(packet.channel);
  chunk.keyFrame = packet.keyFrame;
  chunk.time = packet.time;
  chunk.pts = packet.pts;
  chunk.dts = packet.dts;
  chunk.duration = packet.duration;
  const ImfWriteResult result = mState->Append(chunk, packet.data);
  if (result != ImfWriteResult::kWritten) return result;
  mState->extent.AddPacket(packet.channel, packet.time, packet.duration);
  return mState->CheckpointIfDue();
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

uint64_t ImfWriter::Capacity() const { return mState->capacity; }

uint64_t ImfWriter::Used() const { return mState->used; }

uint64_t ImfWriter::Generation() const { return mState->generation; }

void ImfWriter::SetCheckpointInterval(int seconds) { mState->interval = std::chrono::seconds(seconds); }
