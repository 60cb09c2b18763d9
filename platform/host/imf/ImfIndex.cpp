#include "platform/host/imf/ImfIndex.h"

#include "platform/host/imf/ImfStorage.h"

namespace imf {

// Offsets fall from piece to piece, so this comes to an end whatever they say.
void ImfIndex::Find(const Checkpoint& checkpoint) {
  uint64_t offset = checkpoint.index;
  uint64_t end = checkpoint.used;  // the chunks behind the piece begin here, or earlier behind the last one
  bool isLast = true;
  while (offset != 0) {
    Piece piece;
    if (!ReadPiece(offset, &piece)) return;
    if (isLast ? piece.End() > end : piece.End() != end) return;
    isLast = false;
    if (!mPieces.emplace(piece.index.base, piece).second) return;
    offset = piece.index.previous;
    end = piece.index.base;
  }
}

bool ImfIndex::ReadPiece(uint64_t offset, Piece* piece) const {
  uint8_t bytes[kChunkHeader + kIndexHeader];
  if (offset < kDataOffset || offset % kAlignment != 0 || offset > mFileSize) return false;
  if (ReadAt(mFile, bytes, sizeof bytes, offset) != static_cast<int64_t>(sizeof bytes)) return false;
  Chunk chunk;
  if (!DecodeChunk(bytes, &chunk) || chunk.type != kIndexChunk || chunk.generation != mIdentity.generation) {
    return false;
  }
  piece->offset = offset;
  piece->size = ChunkSize(chunk.length);
  if (piece->size > mFileSize - offset) return false;
  if (!DecodeIndex(bytes + kChunkHeader, chunk.length, &piece->index)) return false;
  const Index& index = piece->index;
  if (index.base < kDataOffset || index.base > offset || index.base % kAlignment != 0) return false;
  if (chunk.sequence != index.sequence + index.count) return false;
  return index.previous == 0 ? index.base == kDataOffset : index.previous < index.base;
}

const ImfIndex::Piece* ImfIndex::At(uint64_t offset) const {
  const auto found = mPieces.find(offset);
  return found != mPieces.end() ? &found->second : nullptr;
}

bool ImfIndex::Load(const Piece& piece, std::vector<ImfEntry>* entries) const {
  std::vector<uint8_t> bytes(piece.size);
  if (ReadAt(mFile, bytes.data(), bytes.size(), piece.offset) != static_cast<int64_t>(bytes.size()))
    return false;
  Chunk chunk;
  Index index;
  const uint8_t* payload = bytes.data() + kChunkHeader;
  // A file that was recycled since holds something else here.
  return DecodeChunk(bytes.data(), &chunk) && chunk.type == kIndexChunk &&
         chunk.generation == mIdentity.generation && ChunkSize(chunk.length) == piece.size &&
         Crc(payload, chunk.length) == chunk.payloadCrc && DecodeIndex(payload, chunk.length, &index) &&
         index.base == piece.index.base && index.count == piece.index.count &&
         DecodeEntries(payload, index, piece.offset, entries);
}

}  // namespace imf
