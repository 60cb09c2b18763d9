// recorder status: what is on each disk, in numbers. Looks only.
#include <CLI/CLI.hpp>
#include <cinttypes>
#include <memory>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/looking/JsonLine.h"
#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Status.h"

namespace recorder {

namespace {

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

int Status(std::string root, bool json) {
  Disks disks;
  if (Refusal refusal = OpenToLook(&root, &disks)) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const std::optional<std::string> holder = HolderOf(root, disks.All());
  const bool recording = holder && holder->rfind("recorder record ", 0) == 0;
  if (holder && !json) Print("in use by %s\n", holder->c_str());
  const Capacity capacity = MeasureCapacity(disks);
  for (const Disk& disk : disks.All()) {
    FmgrRepositoryGroup* group = disks.Group(disk);
    if (group == nullptr) continue;
    DiskStatus status = Examine(disk, *group);
    status.writing = recording && group == BeingWritten(disks);
    json ? PrintJson(status, capacity) : PrintText(status);
  }
  if (!json) PrintText(capacity);
  return kDone;
}

}  // namespace

void AddStatusCommand(CLI::App& app, Context& context) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("status", "Show what is on each disk, also while recording goes on");
  command->add_flag("--json", *json, "One JSON object a disk and line");
  command->callback(
      [json, &context] { context.run = [json, &context] { return Status(context.root, *json); }; });
}

}  // namespace recorder
