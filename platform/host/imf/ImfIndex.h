// The index of an open record file: where its pieces are and what they list. Nothing that it says is believed
// before it fits together; what does not is as if it weren't there.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "platform/host/imf/ImfFormat.h"

namespace imf {

class ImfIndex {
 public:
  struct Piece {
    uint64_t offset = 0;  // of its chunk
    uint64_t size = 0;    // of its chunk
    Index index;
    uint64_t End() const { return offset + size; }
    uint32_t EndSequence() const { return index.sequence + index.count + 1; }
  };
  using Pieces = std::map<uint64_t, Piece>;  // by the offset of the first chunk that they list

  // `file` is lent.
  ImfIndex(int file, const Identity& identity, uint64_t fileSize)
      : mFile(file), mIdentity(identity), mFileSize(fileSize) {}

  // Looks for pieces from the checkpoint's last one backwards, as far as they are sound and not known yet.
  void Find(const Checkpoint& checkpoint);
  // A piece may be dropped while one goes through them, not that at which one is.
  const Pieces& All() const { return mPieces; }
  // The piece that lists the chunks from `offset` on; null without one.
  const Piece* At(uint64_t offset) const;
  // False: what it lists is not sound.
  bool Load(const Piece& piece, std::vector<ImfEntry>* entries) const;
  void Drop(const Piece& piece) { mPieces.erase(piece.index.base); }

 private:
  bool ReadPiece(uint64_t offset, Piece* piece) const;

  const int mFile;
  const Identity mIdentity;
  const uint64_t mFileSize;
  Pieces mPieces;
};

}  // namespace imf
