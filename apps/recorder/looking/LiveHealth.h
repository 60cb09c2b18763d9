// How the recording of a root directory is doing, as its recorder tells it, in the forms in which people and
// programs ask for it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/disks/Health.h"
#include "apps/recorder/looking/Status.h"

namespace recorder {

struct LiveHealth {
  Health health;
  double age = 0;      // seconds since it was told
  bool lives = false;  // the recorder that told it holds the root directory
  // It lives, but has not told anything, or not taken a packet, for too long.
  bool isStuck = false;
};

// `holder` is who holds the root directory or its disks, as HolderOf() says. Nothing when no recorder ever told
// anything here.
std::optional<LiveHealth> LookAtHealth(const std::string& root, const std::optional<std::string>& holder);

// Lines of text, without their ends.
std::vector<std::string> HealthText(const LiveHealth& live);
nlohmann::ordered_json HealthJson(const LiveHealth& live);
// What a scraper reads: the text format of Prometheus, version 0.0.4.
std::string HealthMetrics(const std::optional<LiveHealth>& live, bool recording,
                          const std::vector<DiskStatus>& disks, const Capacity& capacity);

// Names of the channels: those of the recorder, and of `configured` for channels that it does not know.
ChannelNames NamesIn(const std::string& root, const ChannelNames& configured);

}  // namespace recorder
