// Walks the chunks of an open record file in the order in which they were written: what reading and repair
// share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfStorage.h"

namespace imf {

class ImfWalk {
 public:
  enum class Step {
    kChunk,        // Header() and Payload() hold a sound chunk; Offset() is where it stands
    kDamage,       // Skipped() bytes are not sound or can't be read; the walk goes on behind them
    kEnd,          // nothing sound follows, as yet
    kReplaced,     // the file holds another recording by now
    kDeviceError,  // too many places can't be read: each one may cost seconds
  };

  // `file` is lent for as long as the walk lasts. Behind the last checkpoint, sound chunks are looked for up to
  // `lookAhead` bytes behind damage. 0 suits a file that may still be growing: there, unsound bytes behind the
  // last checkpoint are where the writer is at work.
  ImfWalk(int file, const Identity& identity, uint64_t fileSize, uint64_t lookAhead);

  // Payloads are read and checked of parameters, and of packets of `channel`: all channels for kAllChannels,
  // none for kNoChannel; of pieces of the index for kAllChannels.
  Step Next(int channel);
  static constexpr int kAllChannels = -1;
  static constexpr int kNoChannel = -2;
  void Rewind();

  // Reads the chunk that the index names, a packet's payload only with `payload`. False: it is not sound, not
  // as the index has it, or can't be read. The walk's position stays.
  bool Take(const ImfEntry& entry, uint32_t sequence, bool payload);

  // A place to go on from. Where chunks were left out, the next one may have a higher sequence number.
  struct Place {
    uint64_t offset = kDataOffset;
    uint32_t sequence = 0;
    bool isLeap = false;
  };
  const Place& Position() const { return mNext; }
  void MoveTo(const Place& place) { mNext = place; }

  const Chunk& Header() const { return mChunk; }
  uint64_t Offset() const { return mOffset; }
  // Header().length bytes, good until the next call; null when they were not to be read.
  const uint8_t* Payload() const { return mPayload; }
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

  Found TakeNext(int channel);
  bool CheckPayload(uint64_t offset, size_t ahead);
  bool IsOurs(const uint8_t* header, uint64_t offset, Chunk* chunk) const;
  bool IsDue(const Chunk& chunk) const;
  Step SkipToHeader();
  bool GiveUpAfter(int error);
  bool FindHeader(uint64_t from, uint64_t limit, uint64_t* found);

  const int mFile;
  const Identity mIdentity;
  const uint64_t mFileSize;
  const uint64_t mLookAhead;
  uint8_t mGeneration[8];

  Window mWindow;
  Checkpoint mCheckpoint;
  Chunk mChunk;
  uint64_t mOffset = 0;
  const uint8_t* mPayload = nullptr;
  Place mNext;
  uint64_t mSoundEnd = kDataOffset;
  uint64_t mSkipped = 0;
  int mTakeError = 0;   // errno of the last TakeNext
  int mReadErrors = 0;  // places
  int mReadError = 0;   // errno
};

}  // namespace imf
