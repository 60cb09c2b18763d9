#include "apps/recorder/disks/DiskState.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace recorder {

namespace {

constexpr size_t kSizeLimit = 65536;  // bytes; nothing that a recorder writes comes near

std::string StatePath(const std::string& root) { return root + "/.recorder.state"; }

// One line, whatever a path or an error text holds.
std::string OneLine(std::string text) {
  for (char& c : text) c = static_cast<unsigned char>(c) < ' ' || c == 0x7f ? '?' : c;
  return text;
}

// Not through links, and never waiting for whoever should open the other end of a fifo.
std::string ReadSmallFile(const std::string& path) {
  std::string text;
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return text;
  struct stat info = {};
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    char buffer[4096];
    for (ssize_t size; text.size() < kSizeLimit && (size = read(fd, buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<size_t>(size));
    }
  }
  close(fd);
  return text;
}

}  // namespace

const char* UseName(DiskState::Use use) {
  switch (use) {
    case DiskState::kUsed:
      return "used";
    case DiskState::kMissing:
      return "missing";
    case DiskState::kAside:
      return "aside";
  }
  return "?";
}

bool WriteState(const std::string& root, const RecorderState& state) {
  std::ostringstream text;
  if (state.clockDoubted != 0) text << "clock " << state.clockDoubted << "\n";
  for (const DiskState& each : state.disks) {
    text << UseName(each.use) << " " << each.disk.name << " " << each.since << " " << OneLine(each.what)
         << "\n";
  }
  const std::string path = StatePath(root);
  const std::string next = path + ".next";
  unlink(next.c_str());
  const int fd = open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::string bytes = text.str();
  const bool written = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  if (close(fd) == 0 && written && rename(next.c_str(), path.c_str()) == 0) return true;
  const int error = errno;
  unlink(next.c_str());
  errno = error;
  return false;
}

RecorderState ReadState(const std::string& root) {
  RecorderState state;
  std::istringstream lines(ReadSmallFile(StatePath(root)));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    if (kind == "clock") {
      words >> state.clockDoubted;
      continue;
    }
    DiskState each;
    each.use = kind == UseName(DiskState::kMissing) ? DiskState::kMissing : DiskState::kAside;
    if (kind != UseName(each.use) || !(words >> each.disk.name >> each.since)) continue;
    if (RefuseDisk(root, each.disk.name, {})) continue;
    each.disk.path = DiskPath(root, each.disk.name);
    std::getline(words >> std::ws, each.what);
    each.what = OneLine(each.what);
    state.disks.push_back(each);
  }
  return state;
}

}  // namespace recorder
