#include "apps/recorder/disks/DiskManifest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "apps/recorder/base/Files.h"

namespace recorder {

namespace {

bool WriteAll(int fd, const std::string& text) {
  const ssize_t written = write(fd, text.data(), text.size());
  if (written >= 0 && static_cast<size_t>(written) != text.size()) errno = ENOSPC;
  return written >= 0 && static_cast<size_t>(written) == text.size();
}

}  // namespace

std::optional<DiskManifest> ReadManifest(const std::string& disk) {
  const std::optional<std::string> text = ReadSmallFile(disk + "/" + kManifestName, 1024);
  DiskManifest manifest;
  int end = 0;
  // Later versions may add lines, so what follows these is not looked at.
  if (!text || std::sscanf(text->c_str(), "recorder disk 1 files %" SCNd64 " file-bytes %" SCNu64 "%n",
                           &manifest.files, &manifest.fileBytes, &end) != 2) {
    return std::nullopt;
  }
  // A number that is cut off reads as a smaller one.
  const bool isWhole = static_cast<size_t>(end) < text->size() && (*text)[static_cast<size_t>(end)] == '\n';
  const bool isPossible = manifest.files >= 1 && manifest.fileBytes >= 1 && manifest.fileBytes <= INT32_MAX;
  if (!isWhole || !isPossible) return std::nullopt;
  return manifest;
}

std::string WriteManifest(const std::string& disk, const DiskManifest& manifest) {
  const std::string path = disk + "/" + kManifestName;
  const std::string fresh = disk + "/." + kManifestName + ".new";
  const std::string text = "recorder disk 1\nfiles " + std::to_string(manifest.files) + "\nfile-bytes " +
                           std::to_string(manifest.fileBytes) + "\n";
  unlink(fresh.c_str());  // of an attempt that was cut off
  const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  bool done = fd >= 0 && WriteAll(fd, text) && fsync(fd) == 0;
  if (fd >= 0) done = close(fd) == 0 && done;
  done = done && std::rename(fresh.c_str(), path.c_str()) == 0 && SyncDirectory(disk);
  if (done) return "";
  std::string reason = "cannot write " + path + ": " + std::strerror(errno);
  unlink(fresh.c_str());
  return reason;
}

}  // namespace recorder
