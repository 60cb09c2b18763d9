#include "apps/recorder/looking/Months.h"

#include <algorithm>
#include <ctime>
#include <iterator>

#include "apps/recorder/looking/Coverage.h"
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

int64_t BeginOf(Month month) {
  std::tm local{};
  local.tm_year = month.first - 1900;
  local.tm_mon = month.second - 1;
  local.tm_mday = 1;
  local.tm_isdst = -1;
  return mktime(&local);
}

// A recording's name reaches into a month also where its channels have no pictures any more.
bool HasPicturesIn(Month month, const Disks& disks, const Recordings& recordings) {
  const Range range = {BeginOf(month) * kMicros, std::min(BeginOf(Following(month)), kLatestTime) * kMicros};
  for (const Recording& each : recordings.Find(range, kAnyChannel)) {
    const Coverage coverage(disks, {each.start * kMicros, each.end * kMicros});
    const std::vector<PictureSpan>& spans = coverage.Of(each);
    if (each.mask == 0 || HasPictures(spans, kAnyChannel, range)) return true;
  }
  return false;
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
  const Recordings recordings(disks);
  for (auto month = found.begin(); month != found.end();) {
    month = HasPicturesIn(*month, disks, recordings) ? std::next(month) : found.erase(month);
  }
  // How far a recording in progress reaches is not in its name.
  for (const Recording& open : recordings.Open()) {
    for (Month month = MonthOf(open.start); month <= MonthOf(open.end); month = Following(month))
      found.insert(month);
  }
  return found;
}

}  // namespace recorder
