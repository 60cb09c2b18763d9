#include "apps/recorder/looking/LiveHealth.h"

#include <algorithm>
#include <cstdio>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr double kTooOld = 5;  // seconds

// A text file can say anything; a number of seconds since the epoch that is shown is one that can be.
std::string ShowTime(int64_t micros) {
  return micros > 0 && micros < kLatestTime * kMicros ? FormatTime(micros / kMicros) : "never";
}

nlohmann::ordered_json JsonTime(int64_t micros) {
  if (micros <= 0 || micros >= kLatestTime * kMicros) return nullptr;
  return FormatExactTime(micros);
}

nlohmann::ordered_json JsonText(const std::string& text) {
  if (text.empty()) return nullptr;
  return text;
}

std::string Rate(const Health::Channel& channel) {
  char text[80];
  std::snprintf(text, sizeof text, "%.1f pictures/s, %s/s", channel.picturesPerSecond,
                FormatSize(static_cast<uint64_t>(std::max(0.0, channel.bytesPerSecond))).c_str());
  return text;
}

std::string ChannelText(const Health::Channel& channel, bool lives, bool paused) {
  ChannelNames names;
  if (!channel.name.empty()) names[channel.channel] = channel.name;
  std::string line = DescribeChannel(channel.channel, names) + ": ";
  if (!lives) {
    line += "last picture " + ShowTime(channel.lastPicture);
  } else if (channel.state == "recording") {
    line += (paused ? "dropped, there is no disk to record to: " : "recording, ") + Rate(channel);
  } else {
    line += channel.state + " since " + ShowTime(channel.since);
    if (!channel.reason.empty()) line += ": " + channel.reason;
    if (channel.lastPicture != 0) line += "; last picture " + ShowTime(channel.lastPicture);
  }
  if (!channel.codec.empty()) {
    line += ", " + channel.codec + " " + std::to_string(channel.width) + "x" + std::to_string(channel.height);
  }
  if (channel.reconnects == 1) line += ", came back once";
  if (channel.reconnects > 1) line += ", came back " + std::to_string(channel.reconnects) + " times";
  return line + "; " + channel.address;
}

}  // namespace

std::optional<LiveHealth> LookAtHealth(const std::string& root, const std::optional<std::string>& holder) {
  const std::optional<Health> health = ReadHealth(root);
  if (!health) return std::nullopt;
  LiveHealth live;
  live.health = *health;
  const std::string told = "recorder record (pid " + std::to_string(health->pid) + " ";
  live.lives = holder && holder->rfind(told, 0) == 0 && !health->stopped;
  const int64_t now = ParseTime("now").value_or(0);
  live.age = static_cast<double>(now - health->written) / kMicros;
  const double still = static_cast<double>(health->written - health->moved) / kMicros;
  live.isStuck = live.lives && (live.age > kTooOld || still > kTooOld);
  return live;
}

std::vector<std::string> HealthText(const LiveHealth& live) {
  const Health& health = live.health;
  char age[40];
  std::snprintf(age, sizeof age, "%.1f s ago", live.age);
  std::string text = "recorder: ";
  if (live.lives) {
    text += std::string(live.isStuck    ? "stuck"
                        : health.paused ? "paused, no disk can be used; running"
                                        : "recording") +
            " since " + ShowTime(live.isStuck ? health.moved : health.started) + ", as of " + age;
  } else {
    text += health.stopped ? "stopped at " + ShowTime(health.written)
                           : "not running, last seen " + ShowTime(health.written);
  }
  std::vector<std::string> lines = {text};
  for (const Health::Channel& channel : health.channels) {
    lines.push_back(ChannelText(channel, live.lives, health.paused));
  }
  if (live.lives && !health.segment.empty()) lines.push_back("segment under way: " + health.segment);
  if (!health.lastError.empty()) {
    lines.push_back("last error: " + ShowTime(health.lastErrorTime) + " " + health.lastError);
  }
  return lines;
}

nlohmann::ordered_json HealthJson(const LiveHealth& live) {
  const Health& health = live.health;
  nlohmann::ordered_json json;
  json["lives"] = live.lives;
  json["stuck"] = live.isStuck;
  json["ageSeconds"] = live.age;
  json["written"] = JsonTime(health.written);
  json["started"] = JsonTime(health.started);
  json["moved"] = JsonTime(health.moved);
  json["pid"] = health.pid;
  json["host"] = health.host;
  json["stopped"] = health.stopped;
  json["paused"] = health.paused;
  json["segment"] = JsonText(health.segment);
  json["lastError"] = JsonText(health.lastError);
  json["lastErrorTime"] = JsonTime(health.lastErrorTime);
  json["segments"] = health.segments;
  json["packets"] = health.packets;
  json["dropped"] = health.dropped;
  json["recycled"] = health.recycled;
  json["quarantined"] = health.quarantined;
  json["repaired"] = health.repaired;
  json["channels"] = nlohmann::ordered_json::array();
  for (const Health::Channel& each : health.channels) {
    nlohmann::ordered_json channel;
    channel["channel"] = each.channel;
    channel["name"] = JsonText(each.name);
    channel["address"] = each.address;
    channel["state"] = each.state;
    channel["since"] = JsonTime(each.since);
    channel["reason"] = JsonText(each.reason);
    channel["lastPicture"] = JsonTime(each.lastPicture);
    channel["picturesPerSecond"] = each.picturesPerSecond;
    channel["bytesPerSecond"] = each.bytesPerSecond;
    channel["codec"] = each.codec;
    channel["width"] = each.width;
    channel["height"] = each.height;
    channel["pictures"] = each.pictures;
    channel["bytes"] = each.bytes;
    channel["reconnects"] = each.reconnects;
    json["channels"].push_back(channel);
  }
  json["disks"] = nlohmann::ordered_json::array();
  for (const Health::Disk& each : health.disks) {
    json["disks"].push_back(
        {{"disk", each.name}, {"state", each.state}, {"since", JsonTime(each.since)}, {"reason", each.reason}});
  }
  return json;
}

ChannelNames NamesIn(const std::string& root, const ChannelNames& configured) {
  ChannelNames names = configured;
  if (const std::optional<Health> health = ReadHealth(root)) {
    for (const Health::Channel& each : health->channels) {
      names.erase(each.channel);
      if (!each.name.empty()) names[each.channel] = each.name;
    }
  }
  return names;
}

}  // namespace recorder
