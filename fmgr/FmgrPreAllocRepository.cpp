#include "fmgr/FmgrPreAllocRepository.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fmgr/Log.h"
#include "fmgr/StepReport.h"

namespace {

constexpr char kUnit[] = "FmgrPreAllocRepository";

// A board's kernel has a mode that reserves blocks without marking them unwritten, so that recording never
// waits for the file system to update its extents. Linux once reserved the value for it (linux/falloc.h,
// FALLOC_FL_NO_HIDE_STALE); stock kernels answer EOPNOTSUPP to it, and only then is plain reservation used.
constexpr int kKeepStaleBlocks = 4;

int Reserve(int descriptor, unsigned size) {
  const off64_t length = static_cast<off64_t>(size);
  int result = fallocate64(descriptor, kKeepStaleBlocks, 0, length);
  if (result != 0 && errno == EOPNOTSUPP) result = fallocate64(descriptor, 0, 0, length);
  return result;
}

}  // namespace

FmgrPreAllocRepository::FmgrPreAllocRepository(std::string mount) : path(mount + "/imf_prealloc/") {}

FmgrPreAllocRepository::~FmgrPreAllocRepository() = default;

unsigned FmgrPreAllocRepository::CreateFile(std::string filePath, unsigned size) {
  const int descriptor = creat(filePath.c_str(), 0600);
  if (descriptor < 0) {
    fmgr::LogError(kUnit, 71, "file create failure! (%s)\n", std::strerror(errno));
    return 0;
  }
  const bool reserved = Reserve(descriptor, size) == 0;
  if (!reserved) fmgr::LogError(kUnit, 79, "file allocate failure! (%s)\n", std::strerror(errno));
  close(descriptor);
  return reserved ? 1 : 0;
}

unsigned FmgrPreAllocRepository::Make(unsigned sizeMiB, unsigned count, ProgressIndicator* indicator) {
  if (IsExistDir(path)) {
    fmgr::LogError(kUnit, 36, "Can't create pre-allocation repository! (%s) already exist\n", path.c_str());
    return 0;
  }
  if (!CreateDir(path)) {
    fmgr::LogError(kUnit, 42, "Can't create pre-allocation repository! (%s)\n", path.c_str());
    return 0;
  }
  if (indicator != nullptr) indicator->BeginStage(static_cast<int>(count), PROGRESS_STAGE_PRE_ALLOCATE);

  // Deliberately 32 bits wide: record files are well below 4 GiB, and 4096 MiB wraps to nothing.
  const unsigned size = sizeMiB << 20;
  for (unsigned i = 0; i < count; ++i) {
    const std::string filePath = path + MakeFileName(static_cast<int>(i));
    if (!CreateFile(filePath, size)) return 0;
    files.push_back(filePath);
    fmgr::ReportStep(indicator, static_cast<int>(i));
  }
  return 1;
}
