#include "apps/recorder/disks/Refusals.h"

#include <algorithm>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

// The file manager looks for files with patterns of at most 63 bytes: DISK/data_00000001/65f00000* has to fit.
constexpr size_t kDiskPathLimit = 39;
constexpr size_t kDiskNameLimit = 8;  // bytes of a disk's name that the file list cache keeps
constexpr uint64_t kFileSizeLimit = 2048 * kMiB;
constexpr int64_t kMostFiles = 99999999;  // pool names have eight digits

const struct {
  int hours;
  ipc_preserve_limit_e limit;
} kKeepHours[] = {
    {0, IPC_PRESERVE_UNLIMITED},     {12, IPC_PRESERVE_12_HOURS},     {24, IPC_PRESERVE_24_HOURS},
    {48, IPC_PRESERVE_48_HOURS},     {72, IPC_PRESERVE_72_HOURS},     {96, IPC_PRESERVE_96_HOURS},
    {120, IPC_PRESERVE_120_HOURS},   {144, IPC_PRESERVE_144_HOURS},   {168, IPC_PRESERVE_168_HOURS},
    {336, IPC_PRESERVE_336_HOURS},   {672, IPC_PRESERVE_672_HOURS},   {720, IPC_PRESERVE_720_HOURS},
    {1440, IPC_PRESERVE_1440_HOURS}, {2160, IPC_PRESERVE_2160_HOURS},
};

// Paths end up in shell commands and in glob patterns, so anything else could mean something there.
bool IsPlain(const std::string& text, bool slashes) {
  return std::all_of(text.begin(), text.end(), [slashes](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == '-' || (slashes && c == '/');
  });
}

std::string Quoted(const std::string& text) { return "'" + Printable(text) + "'"; }

}  // namespace

Refusal RefuseRoot(const std::string& root) {
  if (root.empty()) return "the root directory is an empty text";
  if (!IsPlain(root, true)) {
    return "root directory " + Quoted(root) +
           ": only letters, digits, '_', '.', '-' and '/' may be in its path";
  }
  if (root.back() == '/') return "root directory " + Quoted(root) + ": its path must not end with a slash";
  if (root.find("data_") != std::string::npos) {
    return "root directory " + Quoted(root) + ": its path must not contain \"data_\"";
  }
  return std::nullopt;
}

Refusal RefuseDiskPath(const std::string& path) {
  if (path.size() > kDiskPathLimit) {
    return "disk path " + Quoted(path) + " has " + std::to_string(path.size()) + " bytes, at most " +
           std::to_string(kDiskPathLimit) + " are possible: choose a shorter root directory";
  }
  if (path.empty() || path[0] != '/') return "disk path " + Quoted(path) + " is not an absolute path";
  if (!IsPlain(path, true)) {
    return "disk path " + Quoted(path) + ": only letters, digits, '_', '.', '-' and '/' may be in it";
  }
  if (path.back() == '/') return "disk path " + Quoted(path) + " must not end with a slash";
  if (path.find("data_") != std::string::npos)
    return "disk path " + Quoted(path) + " must not contain \"data_\"";
  return std::nullopt;
}

Refusal RefuseDiskName(const std::string& name, const std::vector<std::string>& others) {
  if (name.empty() || name == "." || name == ".." || !IsPlain(name, false)) {
    return "disk name " + Quoted(name) + ": only letters, digits, '_', '.' and '-' may be in it";
  }
  if (name.size() > kDiskNameLimit) {
    return "disk name " + Quoted(name) + " has " + std::to_string(name.size()) + " bytes, at most " +
           std::to_string(kDiskNameLimit) + " are possible";
  }
  int same = 0;
  for (const std::string& other : others) {
    if (other == name) {
      if (++same > 1) return "disk name " + Quoted(name) + " is given twice";
      continue;
    }
    if (other.find(name) != std::string::npos || name.find(other) != std::string::npos) {
      const bool inside = other.find(name) != std::string::npos;
      return "disk name " + Quoted(inside ? name : other) + " is contained in disk name " +
             Quoted(inside ? other : name) + ": their files could be mistaken for one another";
    }
  }
  return std::nullopt;
}

Refusal RefuseGeometry(uint64_t size, int64_t count) {
  if (size < kMiB || size % kMiB != 0) return "record files are whole MiB, at least 1M each";
  if (size >= kFileSizeLimit) {
    return "record files of " + FormatSize(size) + ": each must be smaller than " + FormatSize(kFileSizeLimit);
  }
  if (count < kFewestFiles) {
    return std::to_string(count) + " record files: a disk needs at least " + std::to_string(kFewestFiles);
  }
  if (count > kMostFiles) {
    return std::to_string(count) + " record files: a disk takes at most " + std::to_string(kMostFiles);
  }
  return std::nullopt;
}

Refusal RefuseClock(int64_t seconds) {
  if (seconds < kEarliestTime) {
    return "the clock says " + FormatTime(seconds) + ", which is before " + FormatTime(kEarliestTime) +
           ": set it before recording";
  }
  if (seconds >= kLatestTime) {
    return "the clock says " + FormatTime(seconds) + ", which is not before " + FormatTime(kLatestTime);
  }
  return std::nullopt;
}

Refusal RefuseKeep(int64_t seconds, ipc_preserve_limit_e* limit) {
  if (seconds != 0 && seconds < 3600) return "--keep: recordings are kept for an hour at least (0: no limit)";
  *limit = IPC_PRESERVE_UNLIMITED;
  for (const auto& entry : kKeepHours) {
    if (seconds == 0 || int64_t{entry.hours} * 3600 < seconds) continue;
    *limit = entry.limit;
    break;
  }
  return std::nullopt;
}

}  // namespace recorder
