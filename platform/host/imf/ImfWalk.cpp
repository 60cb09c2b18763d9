#include "platform/host/imf/ImfWalk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace imf {

namespace {

constexpr int kReadErrorLimit = 16;

uint64_t AlignUp(uint64_t offset, uint64_t alignment) { return (offset + alignment - 1) & ~(alignment - 1); }

}  // namespace

ImfWalk::ImfWalk(int file, const Identity& identity, uint64_t fileSize, uint64_t lookAhead)
    : mFile(file), mIdentity(identity), mFileSize(fileSize), mLookAhead(lookAhead) {
  EncodeGeneration(identity.generation, mGeneration);
  ReadCheckpoint(mFile, mIdentity.generation, &mCheckpoint);
}

void ImfWalk::Rewind() {
  mPosition = kDataOffset;
  mSoundEnd = kDataOffset;
  mSequence = 0;
  mAfterDamage = false;
  mReadErrors = 0;
  mReadError = 0;
}

// The sequence number ascends by one from chunk to chunk, so that no chunk of another place can be taken for
// the next one; only where chunks are known to be missing may it leap.
bool ImfWalk::IsOurs(const uint8_t* header, uint64_t offset, Chunk* chunk) const {
  if (!DecodeChunk(header, chunk) || chunk->generation != mIdentity.generation) return false;
  if (ChunkSize(chunk->length) > mFileSize - offset) return false;
  return mAfterDamage ? chunk->sequence >= mSequence : chunk->sequence == mSequence;
}

ImfWalk::Found ImfWalk::Take(bool payload) {
  mTakeError = 0;
  uint8_t header[kChunkHeader];
  const int64_t got = ReadAt(mFile, header, sizeof header, mPosition);
  if (got < static_cast<int64_t>(sizeof header) || !IsOurs(header, mPosition, &mChunk)) {
    if (got < 0) mTakeError = errno;
    return Found::kUnsound;
  }
  mPayload.clear();
  if (!payload && mChunk.type == kPacketChunk) return Found::kSound;
  mPayload.resize(mChunk.length);
  const int64_t read = ReadAt(mFile, mPayload.data(), mChunk.length, mPosition + kChunkHeader);
  if (read < 0) mTakeError = errno;
  const bool sound = read == int64_t{mChunk.length} && Crc(mPayload.data(), mChunk.length) == mChunk.payloadCrc;
  return sound ? Found::kSound : Found::kBadPayload;
}

ImfWalk::Step ImfWalk::Next(bool payload) {
  Found found = Take(payload);
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
    if (error == 0) found = Take(payload);
  }
  if (found == Found::kUnsound) return SkipToHeader();
  if (found == Found::kBadPayload && mLookAhead == 0 && mPosition >= mCheckpoint.used) return Step::kEnd;

  // A header that is sound tells where the next chunk is, whatever became of the payload.
  mSkipped = ChunkSize(mChunk.length);
  mPosition += mSkipped;
  mSequence = mChunk.sequence + 1;
  mAfterDamage = false;
  if (found == Found::kBadPayload) return Step::kDamage;
  mSoundEnd = mPosition;
  return Step::kChunk;
}

// Counts a place that can't be read.
bool ImfWalk::GiveUpAfter(int error) {
  if (mReadError == 0 || IsDeviceError(mReadError)) mReadError = error;
  return ++mReadErrors > kReadErrorLimit;
}

ImfWalk::Step ImfWalk::SkipToHeader() {
  const uint64_t known = std::min(mCheckpoint.used, mFileSize);
  const uint64_t limit = std::min(mFileSize, std::max(known, mPosition + mLookAhead));
  const bool wasAfterDamage = mAfterDamage;
  mAfterDamage = true;
  uint64_t resumeAt = 0;
  const bool found = FindHeader(mPosition + kAlignment, limit, &resumeAt);
  if (mReadErrors > kReadErrorLimit) return Step::kDeviceError;
  // Nothing more up to where the recording is known to have been: that is a loss too, and a writer goes on
  // there.
  if (!found) resumeAt = AlignUp(known, kAlignment);
  if (resumeAt <= mPosition) {
    mAfterDamage = wasAfterDamage;
    return Step::kEnd;
  }
  mSkipped = resumeAt - mPosition;
  mPosition = resumeAt;
  return Step::kDamage;
}

// The first sound chunk header of this recording at or behind `from` and before `limit`.
bool ImfWalk::FindHeader(uint64_t from, uint64_t limit, uint64_t* found) {
  uint8_t buffer[kBlock + kChunkHeader];
  while (from < limit && mReadErrors <= kReadErrorLimit) {
    const uint64_t blockEnd = AlignUp(from + 1, kBlock);
    const size_t inBlock = static_cast<size_t>(blockEnd - from);
    int64_t got = ReadAt(mFile, buffer, inBlock + kChunkHeader - kAlignment, from);
    if (got < 0) got = ReadAt(mFile, buffer, inBlock, from);  // only the next block can't be read
    if (got < 0) GiveUpAfter(errno);
    for (size_t i = 0; i < inBlock && static_cast<int64_t>(i + kChunkHeader) <= got; i += kAlignment) {
      if (std::memcmp(buffer + i + kChunkGenerationOffset, mGeneration, sizeof mGeneration) != 0) continue;
      Chunk chunk;
      if (from + i >= limit || !IsOurs(buffer + i, from + i, &chunk)) continue;
      *found = from + i;
      return true;
    }
    from = blockEnd;
  }
  return false;
}

}  // namespace imf
