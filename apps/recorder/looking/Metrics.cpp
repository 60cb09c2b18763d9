#include <cinttypes>
#include <cstdio>
#include <set>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/LiveHealth.h"

namespace recorder {

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

// All lines of a metric have to stand together behind what it is.
class Metric {
 public:
  Metric(std::string name, const char* type, const char* help) : mName("recorder_" + std::move(name)) {
    mText = "# HELP " + mName + " " + help + "\n# TYPE " + mName + " " + type + "\n";
  }
  Metric& Add(const Labels& labels, double value) {
    std::string text;
    for (const auto& [name, label] : labels) {
      text += (text.empty() ? "{" : ",") + name + "=\"";
      for (const char c : Printable(label))
        text += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
      text += "\"";
    }
    char number[40];
    std::snprintf(number, sizeof number, " %.15g\n", value);
    mText += mName + text + (text.empty() ? "" : "}") + number;
    return *this;
  }
  const std::string& Text() const { return mText; }

 private:
  const std::string mName;
  std::string mText;
};

std::string DiskMetrics(const std::vector<DiskStatus>& disks, const Capacity& capacity) {
  Metric files("files", "gauge", "Record files by disk and what they hold");
  Metric sizes("file_bytes", "gauge", "Size of a record file");
  Metric oldest("oldest_recording_timestamp_seconds", "gauge", "Start of the oldest recording");
  Metric newest("newest_recording_timestamp_seconds", "gauge", "End of the newest recording");
  for (const DiskStatus& disk : disks) {
    files.Add({{"disk", disk.name}, {"state", "free"}}, disk.free);
    files.Add({{"disk", disk.name}, {"state", "used"}}, disk.used);
    files.Add({{"disk", disk.name}, {"state", "quarantined"}}, disk.quarantined);
    sizes.Add({{"disk", disk.name}}, static_cast<double>(disk.fileSize));
    if (disk.first == 0) continue;
    oldest.Add({{"disk", disk.name}}, disk.first);
    newest.Add({{"disk", disk.name}}, disk.last);
  }
  Metric remaining("remaining_bytes", "gauge", "Room in free record files");
  remaining.Add({}, capacity.remaining * static_cast<double>(kMiB));
  return files.Text() + sizes.Text() + oldest.Text() + newest.Text() + remaining.Text();
}

std::string ChannelMetrics(const std::vector<Health::Channel>& channels, bool lives) {
  Metric recording("channel_recording", "gauge", "Whether pictures of the channel come");
  Metric lost("channel_lost", "gauge", "Whether the channel's camera is lost");
  Metric last("channel_last_picture_timestamp_seconds", "gauge", "When the last picture came");
  Metric pictures("channel_pictures_total", "counter", "Pictures since the recording began");
  Metric bytes("channel_bytes_total", "counter", "Bytes of them");
  Metric reconnects("channel_reconnects_total", "counter", "How often the camera came back");
  int count = 0;
  for (const Health::Channel& each : channels) {
    const Labels labels = {{"channel", std::to_string(each.channel)}, {"name", each.name}};
    const bool isLost = !lives || each.state == "lost" || each.state == "ended";
    count += isLost ? 1 : 0;
    recording.Add(labels, lives && each.state == "recording" ? 1 : 0);
    lost.Add(labels, isLost ? 1 : 0);
    if (each.lastPicture != 0) last.Add(labels, static_cast<double>(each.lastPicture) / kMicros);
    pictures.Add(labels, static_cast<double>(each.pictures));
    bytes.Add(labels, static_cast<double>(each.bytes));
    reconnects.Add(labels, each.reconnects);
  }
  Metric all("channels_lost", "gauge", "Channels whose camera is lost");
  all.Add({}, count);
  return recording.Text() + lost.Text() + all.Text() + last.Text() + pictures.Text() + bytes.Text() +
         reconnects.Text();
}

}  // namespace

std::string HealthMetrics(const std::optional<LiveHealth>& live, bool recording,
                          const std::vector<DiskStatus>& disks, const Capacity& capacity) {
  const auto one = [](const char* name, const char* type, const char* help, double value) {
    return Metric(name, type, help).Add({}, value).Text();
  };
  std::string text = one("up", "gauge", "Whether a recorder records here and is not stuck",
                         recording && (!live || !live->isStuck) ? 1 : 0);
  text += DiskMetrics(disks, capacity);
  if (!live) return text;
  const Health& health = live->health;
  text += one("state_age_seconds", "gauge", "Since the recorder last told how it is doing", live->age);
  text += one("paused", "gauge", "Whether recording waits for a disk", health.paused ? 1 : 0);
  text += one("segments_total", "counter", "Segments completed since the recording began", health.segments);
  text += one("packets_dropped_total", "counter", "Packets that were not recorded", health.dropped);
  text += one("recycled_total", "counter", "Recordings that made room for others", health.recycled);
  text += one("quarantined_total", "counter", "Record files put out of use", health.quarantined);
  text += one("repairs_total", "counter", "Recordings repaired after a crash", health.repaired);
  text += ChannelMetrics(health.channels, live->lives);
  if (health.disks.empty()) return text;
  Metric used("disk_used", "gauge", "Whether the disk is recorded to");
  for (const Health::Disk& disk : health.disks) used.Add({{"disk", disk.name}}, disk.state == "used" ? 1 : 0);
  return text + used.Text();
}

}  // namespace recorder
