#include "apps/recorder/looking/Months.h"

#include <ctime>

#include "apps/recorder/looking/Recordings.h"
#include "fmgr/FmgrFileManager.h"

namespace recorder {

namespace {

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

}  // namespace

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

}  // namespace recorder
