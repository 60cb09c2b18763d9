// recorder status: what is on each disk, in numbers. Looks only.
#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/looking/JsonLine.h"
#include "apps/recorder/looking/LiveHealth.h"
#include "apps/recorder/looking/Status.h"

namespace recorder {

namespace {

void PutState(const DiskState& state, nlohmann::ordered_json* line) {
  (*line)["state"] = UseName(state.use);
  (*line)["reason"] = state.use != DiskState::kUsed ? nlohmann::ordered_json(state.what) : nullptr;
  (*line)["since"] = state.since != 0 ? nlohmann::ordered_json(FormatTime(state.since)) : nullptr;
}

// One of which nothing more can be said.
void PrintJson(const DiskState& state) {
  nlohmann::ordered_json line;
  line["disk"] = state.disk.name;
  line["path"] = state.disk.path;
  PutState(state, &line);
  Print("%s\n", line.dump().c_str());
}

void PrintText(const DiskState& state) {
  Print("  %s%s%s: %s\n", state.use == DiskState::kMissing ? "missing" : "set aside",
        state.since != 0 ? " since " : "", state.since != 0 ? FormatTime(state.since).c_str() : "",
        state.what.c_str());
}

void PrintJson(const DiskStatus& status, const Capacity& capacity) {
  nlohmann::ordered_json line;
  line["disk"] = status.name;
  line["path"] = status.path;
  line["free"] = status.free;
  line["used"] = status.used;
  line["quarantined"] = status.quarantined;
  line["fileBytes"] = status.fileSize;
  line["freeBytes"] = status.fileSize * static_cast<uint64_t>(status.free);
  line["usedBytes"] = status.fileSize * static_cast<uint64_t>(status.used);
  line["quarantinedBytes"] = status.quarantinedBytes;
  line["first"] = status.first != 0 ? nlohmann::ordered_json(FormatTime(status.first)) : nullptr;
  line["last"] = status.last != 0 ? nlohmann::ordered_json(FormatTime(status.last)) : nullptr;
  line["writing"] = status.writing;
  PutState(status.state, &line);
  line["setAside"] = status.setAside;
  line["missingFiles"] = status.missing;
  line["odd"] = nlohmann::ordered_json::array();
  for (const OddEntry& odd : status.odd) line["odd"].push_back({{"path", odd.path}, {"what", odd.what}});
  line["allDisks"]["remainingMiB"] = capacity.remaining;
  line["allDisks"]["hoursLeft"] = nullptr;
  if (capacity.hoursLeft) line["allDisks"]["hoursLeft"] = *capacity.hoursLeft;
  PrintLine(line);
}

void PrintText(const DiskStatus& status) {
  const auto line = [](const char* what, int count, uint64_t bytes) {
    Print("  %-12s %8d files  %10s\n", what, count, FormatSize(bytes).c_str());
  };
  Print("disk %s at %s%s\n", status.name.c_str(), status.path.c_str(),
        status.writing ? ", being recorded to" : "");
  line("free", status.free, status.fileSize * static_cast<uint64_t>(status.free));
  line("used", status.used, status.fileSize * static_cast<uint64_t>(status.used));
  line("quarantined", status.quarantined, status.quarantinedBytes);
  if (status.state.use != DiskState::kUsed) PrintText(status.state);
  if (status.missing > 0) Print("  missing      %8" PRId64 " files\n", status.missing);
  if (status.setAside > 0) Print("  set aside    %8" PRId64 " entries\n", status.setAside);
  for (const OddEntry& odd : status.odd) Print("    %s %s\n", odd.path.c_str(), odd.what.c_str());
  if (status.first == 0) {
    Print("  nothing recorded\n");
  } else {
    Print("  recorded     %s to %s\n", FormatTime(status.first).c_str(), FormatTime(status.last).c_str());
  }
}

void PrintText(const Capacity& capacity) {
  Print("remaining %d MiB", capacity.remaining);
  if (capacity.hoursLeft) Print(", %.1f hours at the present rate", *capacity.hoursLeft);
  Print("\n");
}

enum class Form { kText, kJson, kMetrics };

void PrintHealth(const std::optional<LiveHealth>& live, Form form) {
  if (!live) return;
  if (form == Form::kText) {
    for (const std::string& line : HealthText(*live)) Print("%s\n", line.c_str());
  }
  if (form == Form::kJson) PrintLine({{"recorder", HealthJson(*live)}});
}

int Status(std::string root, const std::vector<std::string>& expected, Form form) {
  Disks disks;
  Refusal refusal = ResolveRoot(&root, true);
  if (!refusal) refusal = disks.Choose(root, {});
  disks.Expect(expected);
  const bool hasDisk = !refusal && !disks.All().empty();
  if (hasDisk) refusal = disks.OpenForLooking();
  if (refusal) {
    Complain("%s", refusal->c_str());
    // A recorder that has lost all of its disks has more to say than anybody.
    PrintHealth(LookAtHealth(root, HolderOf(root, disks.All())), form);
    return kRefused;
  }
  const bool json = form == Form::kJson;
  const std::optional<std::string> holder = HolderOf(root, disks.All());
  const bool recording = holder && holder->rfind("recorder record ", 0) == 0;
  const std::optional<LiveHealth> live = LookAtHealth(root, holder);
  std::vector<DiskState> unused = UnusedDisks(disks, recording);
  const Capacity capacity = hasDisk ? MeasureCapacity(disks) : Capacity();
  std::vector<DiskStatus> all;
  for (const Disk& disk : disks.All()) {
    FmgrRepositoryGroup* group = disks.Group(disk);
    if (group == nullptr) continue;
    DiskStatus status = Examine(disks, disk, *group);
    for (auto state = unused.begin(); state != unused.end(); ++state) {
      if (state->disk.name != disk.name) continue;
      status.state = *state;
      unused.erase(state);
      break;
    }
    status.writing = recording && status.state.use == DiskState::kUsed && group == BeingWritten(disks);
    all.push_back(status);
  }
  if (form == Form::kMetrics) {
    std::fputs(HealthMetrics(live, recording, all, capacity).c_str(), stdout);
    return kDone;
  }
  if (holder && !json) Print("in use by %s\n", holder->c_str());
  for (const DiskStatus& status : all) json ? PrintJson(status, capacity) : PrintText(status);
  for (const DiskState& state : unused) {
    if (!json) Print("disk %s at %s\n", state.disk.name.c_str(), state.disk.path.c_str());
    json ? PrintJson(state) : PrintText(state);
  }
  if (!json) PrintText(capacity);
  PrintHealth(live, form);
  return kDone;
}

}  // namespace

void AddStatusCommand(CLI::App& app, Context& context) {
  auto form = std::make_shared<Form>(Form::kText);
  CLI::App* command = app.add_subcommand(
      "status", "Show what is on each disk and how the recording is doing, also while it goes on");
  command->add_flag_callback(
      "--json", [form] { *form = Form::kJson; }, "One JSON object a disk and line, then one of the recorder");
  command->add_flag_callback(
      "--prometheus", [form] { *form = Form::kMetrics; }, "As a scraper of Prometheus reads it");
  command->callback([form, &context] {
    context.run = [form, &context] { return Status(context.root, context.disks, *form); };
  });
}

}  // namespace recorder
