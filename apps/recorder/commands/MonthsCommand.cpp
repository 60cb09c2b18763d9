// recorder months: a calendar of the months with recordings, in local time. Looks only.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/looking/Recordings.h"
#include "fmgr/FmgrFileManager.h"

namespace recorder {

namespace {

using Month = std::pair<int, int>;  // year, month from 1

Month MonthOf(int64_t seconds) {
  const time_t time = seconds;
  std::tm local{};
  localtime_r(&time, &local);
  return {local.tm_year + 1900, local.tm_mon + 1};
}

Month Following(Month month) {
  return month.second == 12 ? Month(month.first + 1, 1) : Month(month.first, month.second + 1);
}

// Asks for the nearest month with recordings over and over. Each answer has to lie further on, or the walk
// ends.
void Walk(const FmgrFileManager& manager, Month from, int direction, std::set<Month>* found) {
  for (Month at = from;;) {
    Month next;
    if (manager.GetRecentlyMonthInfo(at.first, at.second, next.first, next.second, direction) == 0) return;
    if (direction > 0 ? next <= at : next >= at) return;
    found->insert(next);
    at = next;
  }
}

std::set<Month> FindMonths(const Disks& disks) {
  const FmgrFileManager& manager = *disks.Manager();
  const Month now = MonthOf(std::time(nullptr));
  std::set<Month> found;
  Walk(manager, Following(now), 0, &found);  // back from the next month: this one counts
  Walk(manager, now, 1, &found);
  // How far a recording in progress reaches is not in its name.
  const Recordings recordings(disks);
  for (const Recording& open : recordings.Open()) {
    for (Month month = MonthOf(open.start); month <= MonthOf(open.end); month = Following(month))
      found.insert(month);
  }
  return found;
}

void PrintCalendar(const std::set<Month>& months) {
  static const char* const kNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  int lastYear = 0;
  for (const Month& each : months) {
    if (each.first == lastYear) continue;
    lastYear = each.first;
    std::printf("%d ", lastYear);
    for (int month = 1; month <= 12; month++) {
      std::printf("  %-3s", months.count({lastYear, month}) != 0 ? kNames[month - 1] : ".");
    }
    std::printf("\n");
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
    std::printf("%s\n", line.dump().c_str());
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
