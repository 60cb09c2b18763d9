#include "platform/host/imf/ImfStorage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace imf {

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

const uint8_t* Window::Get(uint64_t offset, size_t length, size_t ahead, size_t* have) {
  if (offset < mBegin || offset > mBegin + mSize) mSize = 0;
  if (mSize == 0) mBegin = offset;
  if (offset + length > mBegin + mSize) {
    // What is there of it already stays; so every byte is read once.
    const size_t passed = static_cast<size_t>(offset - mBegin);
    if (passed > 0 && mSize > passed) std::memmove(mBytes.get(), mBytes.get() + passed, mSize - passed);
    mSize -= passed;
    mBegin = offset;
    const uint64_t needed = AlignUp(offset + length, kBlock);
    // Where something in front can't be read, what is asked for perhaps can.
    if (!Extend(std::max(needed, AlignUp(offset + ahead, kBlock))) && !Extend(needed) &&
        !Extend(offset + length)) {
      return nullptr;
    }
  }
  *have = static_cast<size_t>(std::min<uint64_t>(length, mBegin + mSize - offset));
  return mBytes.get() + (offset - mBegin);
}

// Reads on up to `end` or the end of the file. False with errno, and nothing has changed.
bool Window::Extend(uint64_t end) {
  const size_t size = static_cast<size_t>(end - mBegin);
  if (size > mCapacity) {
    std::unique_ptr<uint8_t[]> larger(new uint8_t[size]);
    if (mSize > 0) std::memcpy(larger.get(), mBytes.get(), mSize);
    mBytes = std::move(larger);
    mCapacity = size;
  }
  const int64_t got = ReadAt(mFile, mBytes.get() + mSize, size - mSize, mBegin + mSize);
  if (got > 0) mSize += static_cast<size_t>(got);
  return got >= 0;
}

}  // namespace imf
