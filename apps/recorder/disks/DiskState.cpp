#include "apps/recorder/disks/DiskState.h"

#include <sstream>

#include "apps/recorder/base/Files.h"

namespace recorder {

namespace {

constexpr size_t kSizeLimit = 65536;  // bytes; nothing that a recorder writes comes near

std::string StatePath(const std::string& root) { return root + "/.recorder.state"; }

// One line, whatever a path or an error text holds.
std::string OneLine(std::string text) {
  for (char& c : text) c = static_cast<unsigned char>(c) < ' ' || c == 0x7f ? '?' : c;
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
  return ReplaceFile(StatePath(root), text.str());
}

RecorderState ReadState(const std::string& root) {
  RecorderState state;
  std::istringstream lines(ReadSmallFile(StatePath(root), kSizeLimit).value_or(""));
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
