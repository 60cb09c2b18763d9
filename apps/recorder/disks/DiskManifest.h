// What preparing noted of a disk in the disk itself: how many record files were laid down, and of what size.
// Names tell where files are and lists are made from names; only this tells that one is missing.
//
//   recorder disk 1
//   files 3500
//   file-bytes 268435456
//
// in DISK/recorder.disk. Disks that were prepared before there was such a file have none, and it is never
// needed to record: one that is missing or damaged is passed over.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace recorder {

constexpr char kManifestName[] = "recorder.disk";

struct DiskManifest {
  int64_t files = 0;       // laid down
  uint64_t fileBytes = 0;  // of each
};

// Nothing when the disk has no manifest, or one that is damaged, later than this program, or no regular file.
std::optional<DiskManifest> ReadManifest(const std::string& disk);
// Writes it in one step and makes it durable: a crash leaves the one before, or none. Empty, or why it could
// not be done.
std::string WriteManifest(const std::string& disk, const DiskManifest& manifest);

}  // namespace recorder
