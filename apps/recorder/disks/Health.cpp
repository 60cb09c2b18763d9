#include "apps/recorder/disks/Health.h"

#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"

namespace recorder {

namespace {

constexpr size_t kSizeLimit = 256 * 1024;  // bytes; with 32 channels and their errors it is a tenth of that

std::string PathIn(const std::string& root) { return root + "/.recorder.health.json"; }

}  // namespace

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Health::Channel, channel, name, address, state, since, reason,
                                                lastPicture, picturesPerSecond, bytesPerSecond, codec, width,
                                                height, pictures, bytes, reconnects)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Health::Disk, name, state, reason, since)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(Health, version, written, started, pid, host, stopped, paused,
                                                moved, segment, lastError, lastErrorTime, segments, packets,
                                                dropped, recycled, quarantined, repaired, channels, disks)

bool WriteHealth(const std::string& root, const Health& health) {
  const nlohmann::json json = health;
  return ReplaceFile(PathIn(root), json.dump(1, ' ', true, nlohmann::json::error_handler_t::replace) + "\n");
}

std::optional<Health> ReadHealth(const std::string& root) {
  const std::optional<std::string> text = ReadSmallFile(PathIn(root), kSizeLimit);
  if (!text) return std::nullopt;
  try {
    return nlohmann::json::parse(*text).get<Health>();
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

}  // namespace recorder
