#include "apps/recorder/recording/Reserve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/Preparation.h"

namespace recorder {

namespace {

constexpr uint64_t kNextToNothing = 256 * 1024;  // bytes: not enough for a database's change
constexpr uint64_t kBlockBytes = 512;            // of st_blocks

// The reserve, opened; closed with the object.
class ReserveFile {
 public:
  explicit ReserveFile(const std::string& disk)
      : mPath(disk + "/" + kReserveFile),
        mFd(Exists(mPath) ? open(mPath.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1) {
    if (mFd < 0 || fstat(mFd, &mInfo) != 0 || !S_ISREG(mInfo.st_mode) || mInfo.st_nlink != 1) mInfo = {};
  }
  ~ReserveFile() {
    if (mFd >= 0) close(mFd);
  }
  ReserveFile(const ReserveFile&) = delete;
  ReserveFile& operator=(const ReserveFile&) = delete;

  const std::string& Path() const { return mPath; }
  uint64_t Wanted() const { return static_cast<uint64_t>(mInfo.st_size); }  // 0: there is none
  uint64_t Held() const { return static_cast<uint64_t>(mInfo.st_blocks) * kBlockBytes; }
  bool Free() const {
    if (fallocate(mFd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, mInfo.st_size) == 0) return true;
    return ftruncate(mFd, 0) == 0 && ftruncate(mFd, mInfo.st_size) == 0;
  }
  bool Fill() const { return fallocate(mFd, 0, 0, mInfo.st_size) == 0; }

 private:
  const std::string mPath;
  const int mFd;
  struct stat mInfo = {};
};

// Bytes that are free on the disk's file system; `most` when that can't be found out.
uint64_t FreeBytes(const std::string& disk, uint64_t most) {
  struct statvfs info = {};
  return statvfs(disk.c_str(), &info) == 0 ? static_cast<uint64_t>(info.f_bavail) * info.f_frsize : most;
}

}  // namespace

bool GiveUpReserve(const std::string& disk) {
  const ReserveFile reserve(disk);
  if (reserve.Wanted() == 0 || reserve.Held() == 0 || !reserve.Free()) return false;
  Complain("%s: the file system is full; %s of its reserve are given up", disk.c_str(),
           FormatSize(reserve.Held()).c_str());
  return true;
}

void KeepReserve(const std::string& disk) {
  const uint64_t free = FreeBytes(disk, kNextToNothing);
  if (free < kNextToNothing) {
    GiveUpReserve(disk);
    return;
  }
  const ReserveFile reserve(disk);
  if (reserve.Wanted() == 0 || reserve.Held() >= reserve.Wanted()) return;
  const uint64_t missing = reserve.Wanted() - reserve.Held();
  if (free < missing + missing / 4 + kNextToNothing || !reserve.Fill()) return;
  Print("%s: the reserve of %s is laid down again\n", disk.c_str(), FormatSize(reserve.Wanted()).c_str());
}

}  // namespace recorder
