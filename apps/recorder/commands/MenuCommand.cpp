// recorder menu: the storage menu, one row a disk. Looks only.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/JsonLine.h"
#include "apps/recorder/looking/Recordings.h"
#include "fmgr/FmgrFileManager.h"

namespace recorder {

namespace {

void PrintEntry(const Disk& disk, const ipc_menu_disk_entry_t& entry, bool writing, bool json) {
  const char* state = writing ? "WRITE" : "IDLE";
  const bool recorded = entry.startTime > 0;
  if (json) {
    nlohmann::ordered_json line;
    line["disk"] = disk.name;
    line["path"] = disk.path;
    line["state"] = state;
    line["megabytes"] = entry.recordedSize;
    line["start"] = recorded ? nlohmann::ordered_json(FormatTime(entry.startTime)) : nullptr;
    line["end"] = recorded ? nlohmann::ordered_json(FormatTime(entry.endTime)) : nullptr;
    PrintLine(line);
    return;
  }
  const std::string range =
      recorded ? FormatTime(entry.startTime) + " to " + FormatTime(entry.endTime) : "nothing recorded";
  Print("%-8s  %-5s  %9d MB  %s\n", disk.name.c_str(), state, entry.recordedSize, range.c_str());
}

int Menu(bool json, std::string root) {
  Disks disks;
  if (Refusal refusal = OpenToLook(&root, &disks)) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const std::optional<std::string> holder = HolderOf(root, disks.All());
  const bool recording = holder && holder->rfind("recorder record ", 0) == 0;
  const std::vector<Disk>& all = disks.All();
  // The menu has a fixed number of rows; a recorder with more disks shows several of them.
  for (size_t first = 0; first < all.size(); first += IPC_MENU_DISK_COUNT) {
    const size_t count = std::min<size_t>(all.size() - first, IPC_MENU_DISK_COUNT);
    ipc_menu_disk_stream_t menu{};
    for (size_t i = 0; i < count; i++) {
      ipc_menu_disk_entry_t& entry = menu.entries[i];
      entry.inUse = 1;
      std::memcpy(entry.diskName, all[first + i].name.data(), all[first + i].name.size());
      std::memcpy(entry.diskPath, all[first + i].path.data(), all[first + i].path.size());
    }
    disks.Manager()->CollectTimeRange(menu);
    // The last disk of the list is where recording would go on; that it does is another question.
    for (size_t i = 0; i < count; i++) {
      PrintEntry(all[first + i], menu.entries[i], recording && menu.entries[i].writing == 1, json);
    }
  }
  return kDone;
}

}  // namespace

void AddMenuCommand(CLI::App& app, Context& context) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("menu", "Show the storage menu: size, range and state of each disk");
  command->add_flag("--json", *json, "One JSON object a disk and line");
  command->callback([json, &context] { context.run = [json, &context] { return Menu(*json, context.root); }; });
}

}  // namespace recorder
