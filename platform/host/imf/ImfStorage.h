// A record file as the file system gives it: opening it, and reading and writing its bytes and header blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/host/imf/ImfFormat.h"

namespace imf {

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

// A part of the file in memory, which moves on through it: bytes that are read one after the other cost one
// system call in a large piece, and are never copied.
class Window {
 public:
  explicit Window(int file) : mFile(file) {}  // lent

  // The bytes from `offset` on; `have` tells how many of `length` there are: all, or those up to the end of the
  // file. Where bytes have to be read, those up to `ahead` bytes are read along, unless the device can't. Null
  // with errno: not all can be read. Good until the next call.
  const uint8_t* Get(uint64_t offset, size_t length, size_t ahead, size_t* have);
  // What is in memory may have changed in the file.
  void Drop() { mSize = 0; }

 private:
  bool Extend(uint64_t end);

  const int mFile;
  uint64_t mBegin = 0;  // offset of the first byte
  size_t mSize = 0;
  size_t mCapacity = 0;
  std::unique_ptr<uint8_t[]> mBytes;  // a vector would fill with zeros what is read over at once
};

}  // namespace imf
