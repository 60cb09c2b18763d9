#include "apps/recorder/disks/PreparationPlan.h"

#include <algorithm>
#include <cstdio>

#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/Disks.h"

namespace recorder {

namespace {

constexpr uint64_t kLeastReserve = 64 * kMiB;
constexpr uint64_t kLeastRoom = 4 * kMiB;  // for data directories and search databases
constexpr uint64_t kPerFile = 4096;        // bytes of names, inode and extents
constexpr uint64_t kBlock = 4096;
constexpr int64_t kFewFiles = 64;  // that a disk has besides record files: directories, databases

// What is kept free of record files.
struct Kept {
  uint64_t reserve = 0;
  uint64_t toCopy = 0;  // recording over a file takes its blocks a second time on such a file system
  uint64_t All() const { return reserve + toCopy; }
};

Refusal FindSize(const PrepareOptions& options, PreparationPlan* plan) {
  if (options.size.empty() == options.bitRate.empty()) return "one of --size and --for is needed";
  if (!options.size.empty()) {
    const std::optional<uint64_t> size = ParseSize(options.size);
    if (!size) return "--size " + options.size + " is not a size: 64M and 1G are";
    plan->size = *size;
    return std::nullopt;
  }
  const std::optional<uint64_t> rate = ParseBitRate(options.bitRate);
  if (!rate) return "--for " + options.bitRate + " is not a bit rate: 8M and 2.5Mbit/s are";
  if (options.segment < 1 || options.segment > 24 * 3600) return "--segment takes 1 to 86400 seconds";
  // A quarter more, so that segments end at a key frame before the file is full.
  const uint64_t bytes = *rate / 8 * static_cast<uint64_t>(options.segment) / 4 * 5;
  plan->size = std::max(kMiB, (bytes + kMiB - 1) / kMiB * kMiB);
  if (RefuseGeometry(plan->size, 3)) {
    return "segments of " + std::to_string(options.segment) + " s at this bit rate need files of " +
           FormatSize(plan->size) + ", which is too large: choose a shorter --segment";
  }
  return std::nullopt;
}

Refusal FindKept(const PrepareOptions& options, const Room& room, Kept* kept) {
  if (!options.reserve.empty()) {
    const std::optional<uint64_t> reserve = ParseSize(options.reserve);
    if (!reserve) return "--reserve " + options.reserve + " is not a size: 64M and 1G are";
    kept->reserve = *reserve;
    return std::nullopt;
  }
  // A few files in a directory of some file system need none: what is free there is kept by nobody.
  if (options.fill || room.isMountPoint) kept->reserve = std::max(room.total / 100, kLeastReserve);
  if (room.copiesOnWrite) kept->toCopy = room.total / 10;
  return std::nullopt;
}

std::string FitText(const PreparationPlan& plan, const Room& room, const Kept& kept) {
  const int64_t fitting = CountThatFits(room, plan.size, kept.All());
  return FormatSize(room.free) + " are free at " + plan.path + ", where " +
         (fitting < kFewestFiles ? "not even " + std::to_string(kFewestFiles) : std::to_string(fitting)) +
         " files of " + FormatSize(plan.size) + " fit" +
         (kept.All() > 0 ? " with " + FormatSize(kept.All()) + " kept free (--reserve)" : "");
}

}  // namespace

Refusal PlanPlace(const PrepareOptions& options, const std::string& root, PreparationPlan* plan) {
  plan->root = root;
  if (Refusal refusal = MakeRootAbsolute(&plan->root)) return refusal;
  if (Refusal refusal = RefuseDiskName(options.disk, ListDisks(plan->root))) return refusal;
  plan->path = DiskPath(plan->root, options.disk);
  plan->prealloc = plan->path + "/imf_prealloc";
  plan->pool = plan->path + "/imf_free";
  return RefuseDiskPath(plan->path);
}

int64_t CountThatFits(const Room& room, uint64_t size, uint64_t reserve) {
  if (room.free < reserve) return 0;
  auto count = static_cast<int64_t>((room.free - reserve) / (size + kPerFile));
  if (room.files >= 0) count = std::min(count, std::max<int64_t>(0, room.files - kFewFiles));
  return count;
}

Refusal PlanFiles(const PrepareOptions& options, const Room& room, PreparationPlan* plan) {
  Kept kept;
  if (options.fill == options.count.has_value()) return "one of --count and --fill is needed";
  if (Refusal refusal = FindSize(options, plan)) return refusal;
  if (Refusal refusal = RefuseGeometry(plan->size, options.count.value_or(kFewestFiles))) return refusal;
  if (Refusal refusal = FindKept(options, room, &kept)) return refusal;
  if (room.isSystem && !options.onSystemDisk) {
    return plan->path + (room.isMountPoint ? "" : " is no mount point of its own and") +
           " lies on the system's own file system: is the disk mounted? With --on-system-disk it is prepared "
           "there";
  }
  plan->count = options.fill ? CountThatFits(room, plan->size, kept.All()) : *options.count;
  if (options.fill && plan->count < kFewestFiles) return FitText(*plan, room, kept);
  // Whoever counts the files himself, and names no reserve, leaves what he wants to.
  const uint64_t reserve = options.reserve.empty() ? std::min(kept.reserve, kLeastRoom) : kept.reserve;
  if (plan->count > CountThatFits(room, plan->size, reserve + kept.toCopy)) {
    return std::to_string(plan->count) + " files of " + FormatSize(plan->size) +
           " do not fit: " + FitText(*plan, room, kept);
  }
  const uint64_t left = room.free - static_cast<uint64_t>(plan->count) * (plan->size + kPerFile);
  // A part of what is kept stays free: data directories and databases are made of it as long as all goes well.
  const uint64_t reserved = std::min(kept.reserve, left) / 4 * 3;
  plan->reserve = reserved - reserved % (reserved < kMiB ? kBlock : kMiB);
  plan->seconds = options.bitRate.empty() ? 0 : plan->count * options.segment;
  return std::nullopt;
}

std::string FormatSpan(int64_t seconds) {
  char text[32];
  const double hours = static_cast<double>(seconds) / 3600;
  std::snprintf(text, sizeof text, hours < 72 ? "%.1f hours" : "%.1f days", hours < 72 ? hours : hours / 24);
  return text;
}

}  // namespace recorder
