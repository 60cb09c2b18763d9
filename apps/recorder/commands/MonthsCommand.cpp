// recorder months: a calendar of the months with recordings, in local time. Looks only.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/JsonLine.h"
#include "apps/recorder/looking/Months.h"
#include "apps/recorder/looking/Recordings.h"

namespace recorder {

namespace {

void PrintCalendar(const std::set<Month>& months) {
  static const char* const kNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  int lastYear = 0;
  for (const Month& each : months) {
    if (each.first == lastYear) continue;
    lastYear = each.first;
    Print("%d ", lastYear);
    for (int month = 1; month <= 12; month++) {
      Print("  %-3s", months.count({lastYear, month}) != 0 ? kNames[month - 1] : ".");
    }
    Print("\n");
  }
}

int Months(bool json, std::string root) {
  Disks disks;
  if (Refusal refusal = OpenToLook(&root, &disks)) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const std::set<Month> months = FindMonths(disks);
  if (months.empty()) {
    Complain("nothing is recorded");
    return kFound;
  }
  if (!json) PrintCalendar(months);
  for (const Month& each : months) {
    if (!json) break;
    nlohmann::ordered_json line;
    line["year"] = each.first;
    line["month"] = each.second;
    PrintLine(line);
  }
  return kDone;
}

}  // namespace

void AddMonthsCommand(CLI::App& app, Context& context) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("months", "Show the months that have recordings, in local time");
  command->add_flag("--json", *json, "One JSON object a month and line");
  command->callback(
      [json, &context] { context.run = [json, &context] { return Months(*json, context.root); }; });
}

}  // namespace recorder
