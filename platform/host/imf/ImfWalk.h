// Walks the chunks of an open record file in the order in which they were written: what reading and repair
// share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/host/imf/ImfFormat.h"

namespace imf {

class ImfWalk {
 public:
  enum class Step {
    kChunk,        // Header() and Payload() hold a sound chunk
    kDamage,       // Skipped() bytes are not sound or can't be read; the walk goes on behind them
    kEnd,          // nothing sound follows, as yet
    kReplaced,     // the file holds another recording by now
    kDeviceError,  // too many places can't be read: each one may cost seconds
  };

  // `file` is lent for as long as the walk lasts. Behind the last checkpoint, sound chunks are looked for up to
  // `lookAhead` bytes behind damage. 0 suits a file that may still be growing: there, unsound bytes behind the
  // last checkpoint are where the writer is at work.
  ImfWalk(int file, const Identity& identity, uint64_t fileSize, uint64_t lookAhead);

  // With `payload` false a packet's payload is neither read nor checked.
  Step Next(bool payload);
  void Rewind();

  const Chunk& Header() const { return mChunk; }
  std::vector<uint8_t>& Payload() { return mPayload; }
  uint64_t Skipped() const { return mSkipped; }
  // Where the last chunk that was found sound ends.
  uint64_t SoundEnd() const { return mSoundEnd; }
  // As of the last step that was not a chunk; at first, as of the construction.
  const Checkpoint& LastCheckpoint() const { return mCheckpoint; }
  // errno of reading that failed, 0 when none did; one that is not the device's (IsDeviceError) comes before
  // all others.
  int ReadError() const { return mReadError; }

 private:
  enum class Found { kSound, kBadPayload, kUnsound };

  Found Take(bool payload);
  bool IsOurs(const uint8_t* header, uint64_t offset, Chunk* chunk) const;
  Step SkipToHeader();
  bool GiveUpAfter(int error);
  bool FindHeader(uint64_t from, uint64_t limit, uint64_t* found);

  const int mFile;
  const Identity mIdentity;
  const uint64_t mFileSize;
  const uint64_t mLookAhead;
  uint8_t mGeneration[8];

  Checkpoint mCheckpoint;
  Chunk mChunk;
  std::vector<uint8_t> mPayload;
  uint64_t mPosition = kDataOffset;
  uint64_t mSoundEnd = kDataOffset;
  uint64_t mSkipped = 0;
  uint32_t mSequence = 0;     // of the next chunk
  bool mAfterDamage = false;  // chunks are missing: the next one may have a higher sequence number
  int mTakeError = 0;         // errno of the last Take
  int mReadErrors = 0;        // places
  int mReadError = 0;         // errno
};

}  // namespace imf
