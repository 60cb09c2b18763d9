#include "apps/recorder/recording/Reporting.h"

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/Address.h"

namespace recorder {

namespace {

constexpr int64_t kLongestDelay = 30 * kMicros;  // between two attempts to connect

}  // namespace

Reporting::Reporting(const Source& source, const Segments& segments, const DiskKeeper& keeper,
                     const Recovery& recovery, Options options)
    : mSegments(segments),
      mKeeper(keeper),
      mRecovery(recovery),
      mOptions(std::move(options)),
      mNames(NamesOf(mOptions.inputs)),
      mCommand(mOptions.onEvent),
      mHealth(source.Health(),
              {mOptions.writesFile ? mOptions.root : "", mNames, kLongestDelay + mOptions.inputTimeout}) {}

Reporting::~Reporting() { mHealth.Note(Collect()); }

void Reporting::Tell(const SourceEvent& event) {
  if (event.line.empty()) return;
  const std::string line = DescribeChannel(event.channel, mNames) + ": " + event.line;
  const bool isBack = event.kind == SourceEvent::kChannelBack;
  isBack ? Remark("%s", line.c_str()) : Complain("%s", line.c_str());
  if (event.kind == SourceEvent::kChannelStillLost) return;
  nlohmann::ordered_json json;
  json["channel"] = event.channel;
  json["name"] = nullptr;
  for (const InputSpec& each : mOptions.inputs) {
    if (each.channel != event.channel) continue;
    if (!each.name.empty()) json["name"] = each.name;
    json["address"] = ShownAddress(each.address);
  }
  if (!isBack) json["reason"] = event.reason;
  Post(isBack ? "channel-back" : "channel-lost", std::move(json));
}

void Reporting::Look() {
  const Segments::Totals& sum = mSegments.Sum();
  if (sum.quarantined != mQuarantined) {
    mQuarantined = sum.quarantined;
    Post("file-quarantined", {{"path", sum.lastQuarantined}});
  }
  if (mSegments.IsPaused() != mPaused) {
    mPaused = !mPaused;
    LookAtDisks();  // the reason comes first, however soon it passes
    Post(mPaused ? "recording-paused" : "recording-resumed", {{"dropped", sum.dropped}});
  }
  if (!mHealth.Move()) return;
  LookAtDisks();
  mHealth.Note(Collect());
}

// A disk that is used from the start is no news.
void Reporting::LookAtDisks() {
  for (const DiskState& each : mKeeper.States()) {
    const auto [known, isNew] = mUses.emplace(each.disk.name, DiskState::kUsed);
    const bool isUsed = each.use == DiskState::kUsed;
    if (isUsed != (known->second == DiskState::kUsed)) {
      Post(isUsed ? "disk-back" : "disk-aside", {{"disk", each.disk.name}, {"reason", each.what}});
    }
    known->second = each.use;
  }
}

void Reporting::Post(const char* what, nlohmann::ordered_json event) {
  nlohmann::ordered_json json = {{"event", what}, {"root", mOptions.root}};
  json.update(event);
  mCommand.Post(std::move(json));
}

Health Reporting::Collect() const {
  const Segments::Totals& sum = mSegments.Sum();
  Health health;
  health.paused = mPaused;
  health.segment = mSegments.Path();
  health.segments = sum.segments;
  health.packets = sum.packets;
  health.dropped = sum.dropped;
  health.recycled = mRecovery.Recycled();
  health.quarantined = sum.quarantined;
  health.repaired = mRecovery.Repaired();
  for (const DiskState& each : mKeeper.States()) {
    health.disks.push_back({each.disk.name, UseName(each.use), each.what, each.since * kMicros});
  }
  return health;
}

}  // namespace recorder
