#include "platform/host/imf/ImfWalk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace imf {

namespace {

constexpr int kReadErrorLimit = 16;

constexpr size_t kLargeRead = 1u << 20;  // when every byte is wanted

}  // namespace

ImfWalk::ImfWalk(int file, const Identity& identity, uint64_t fileSize, uint64_t lookAhead)
    : mFile(file), mIdentity(identity), mFileSize(fileSize), mLookAhead(lookAhead), mWindow(file) {
  EncodeGeneration(identity.generation, mGeneration);
  ReadCheckpoint(mFile, mIdentity.generation, &mCheckpoint);
}

void ImfWalk::Rewind() {
  mWindow.Drop();
  mNext = Place();
  mSoundEnd = kDataOffset;
  mReadErrors = 0;
  mReadError = 0;
}

bool ImfWalk::IsOurs(const uint8_t* header, uint64_t offset, Chunk* chunk) const {
  if (!DecodeChunk(header, chunk) || chunk->generation != mIdentity.generation) return false;
  return ChunkSize(chunk->length) <= mFileSize - offset;
}

// The sequence number ascends by one from chunk to chunk, so that no chunk of another place can be taken for
// the next one; only where chunks are known to be missing may it leap.
bool ImfWalk::IsDue(const Chunk& chunk) const {
  return mNext.isLeap ? chunk.sequence >= mNext.sequence : chunk.sequence == mNext.sequence;
}

ImfWalk::Found ImfWalk::TakeNext(int channel) {
  const size_t ahead = channel == kAllChannels ? kLargeRead : 0;
  mTakeError = 0;
  mPayload = nullptr;
  mOffset = mNext.offset;
  size_t have = 0;
  const uint8_t* header = mWindow.Get(mOffset, kChunkHeader, ahead, &have);
  if (header == nullptr) mTakeError = errno;
  if (header == nullptr || have < kChunkHeader || !IsOurs(header, mOffset, &mChunk) || !IsDue(mChunk)) {
    return Found::kUnsound;
  }
  const bool isPacket = mChunk.type == kPacketChunk;
  const bool isWanted =
      channel == kAllChannels || mChunk.type == kStreamChunk || (isPacket && mChunk.channel == channel);
  return !isWanted || CheckPayload(mOffset + kChunkHeader, ahead) ? Found::kSound : Found::kBadPayload;
}

// Of the chunk whose header was read.
bool ImfWalk::CheckPayload(uint64_t offset, size_t ahead) {
  size_t have = 0;
  mPayload = mWindow.Get(offset, mChunk.length, ahead, &have);
  if (mPayload == nullptr) mTakeError = errno;
  return mPayload != nullptr && have == mChunk.length && Crc(mPayload, have) == mChunk.payloadCrc;
}

bool ImfWalk::Take(const ImfEntry& entry, uint32_t sequence, bool payload) {
  const size_t length = kChunkHeader + (payload || !entry.isPacket ? entry.length : 0);
  size_t have = 0;
  if (entry.offset > mFileSize) return false;
  const uint8_t* header = mWindow.Get(entry.offset, length, 0, &have);
  Chunk chunk;
  if (header == nullptr || have < length || !IsOurs(header, entry.offset, &chunk)) return false;
  const bool isNamed = (chunk.type == kPacketChunk) == entry.isPacket && chunk.type != kIndexChunk &&
                       chunk.channel == entry.channel && chunk.kind == entry.kind &&
                       chunk.number == entry.number && chunk.keyFrame == entry.keyFrame &&
                       chunk.time == entry.time && chunk.length == entry.length && chunk.sequence == sequence;
  if (!isNamed) return false;
  mChunk = chunk;
  mOffset = entry.offset;
  mPayload = nullptr;
  mSkipped = ChunkSize(chunk.length);
  return length == kChunkHeader + entry.length ? CheckPayload(entry.offset + kChunkHeader, 0) : true;
}

ImfWalk::Step ImfWalk::Next(int channel) {
  Found found = TakeNext(channel);
  if (found != Found::kSound) {
    // Who holds the file now, and how far is the writer? It may have passed this place in the meantime.
    const int error = mTakeError;
    Identity now;
    if (!ReadIdentity(mFile, &now) && errno != 0) {
      GiveUpAfter(errno);
      return Step::kDeviceError;
    }
    if (now.generation != mIdentity.generation) return Step::kReplaced;
    ReadCheckpoint(mFile, mIdentity.generation, &mCheckpoint);
    if (error != 0 && GiveUpAfter(error)) return Step::kDeviceError;
    mWindow.Drop();
    if (error == 0) found = TakeNext(channel);
  }
  if (found == Found::kUnsound) return SkipToHeader();
  if (found == Found::kBadPayload && mLookAhead == 0 && mNext.offset >= mCheckpoint.used) return Step::kEnd;

  // A header that is sound tells where the next chunk is, whatever became of the payload.
  mSkipped = ChunkSize(mChunk.length);
  mNext = {mOffset + mSkipped, mChunk.sequence + 1, false};
  if (found == Found::kBadPayload) return Step::kDamage;
  mSoundEnd = mNext.offset;
  return Step::kChunk;
}

// Counts a place that can't be read.
bool ImfWalk::GiveUpAfter(int error) {
  if (mReadError == 0 || IsDeviceError(mReadError)) mReadError = error;
  return ++mReadErrors > kReadErrorLimit;
}

ImfWalk::Step ImfWalk::SkipToHeader() {
  const uint64_t position = mNext.offset;
  const uint64_t known = std::min(mCheckpoint.used, mFileSize);
  const uint64_t limit = std::min(mFileSize, std::max(known, position + mLookAhead));
  const bool wasLeap = mNext.isLeap;
  mNext.isLeap = true;
  uint64_t resumeAt = 0;
  const bool found = FindHeader(position + kAlignment, limit, &resumeAt);
  if (mReadErrors > kReadErrorLimit) return Step::kDeviceError;
  // Nothing more up to where the recording is known to have been: that is a loss too, and a writer goes on
  // there.
  if (!found) resumeAt = AlignUp(known, kAlignment);
  if (resumeAt <= position) {
    mNext.isLeap = wasLeap;
    return Step::kEnd;
  }
  mSkipped = resumeAt - position;
  mNext.offset = resumeAt;
  return Step::kDamage;
}

// The first sound chunk header of this recording at or behind `from` and before `limit`.
bool ImfWalk::FindHeader(uint64_t from, uint64_t limit, uint64_t* found) {
  while (from < limit && mReadErrors <= kReadErrorLimit) {
    const uint64_t blockEnd = AlignUp(from + 1, kBlock);
    const size_t inBlock = static_cast<size_t>(blockEnd - from);
    const size_t ahead = static_cast<size_t>(std::min<uint64_t>(kLargeRead, limit - from));
    size_t have = 0;
    const uint8_t* bytes = mWindow.Get(from, inBlock + kChunkHeader - kAlignment, ahead, &have);
    if (bytes == nullptr) bytes = mWindow.Get(from, inBlock, 0, &have);  // only the next block can't be read
    if (bytes == nullptr) {
      GiveUpAfter(errno);
      have = 0;
    }
    for (size_t i = 0; i < inBlock && i + kChunkHeader <= have; i += kAlignment) {
      if (std::memcmp(bytes + i + kChunkGenerationOffset, mGeneration, sizeof mGeneration) != 0) continue;
      Chunk chunk;
      if (from + i >= limit || !IsOurs(bytes + i, from + i, &chunk) || !IsDue(chunk)) continue;
      *found = from + i;
      return true;
    }
    from = blockEnd;
  }
  return false;
}

}  // namespace imf
