#include "apps/recorder/looking/Timeline.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <iterator>
#include <sstream>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr int64_t kHour = 3600;
constexpr int64_t kDay = 24 * kHour;

std::tm LocalTime(int64_t seconds) {
  const time_t time = seconds;
  std::tm local{};
  localtime_r(&time, &local);
  return local;
}

// Distances between marks that people count in: seconds up to half an hour, hours, days, months.
struct Step {
  enum Unit { kSecond, kHours, kDays, kMonths } unit;
  int count;
  int64_t seconds;  // about
};
constexpr Step kSteps[] = {{Step::kSecond, 1, 1},
                           {Step::kSecond, 2, 2},
                           {Step::kSecond, 5, 5},
                           {Step::kSecond, 10, 10},
                           {Step::kSecond, 15, 15},
                           {Step::kSecond, 30, 30},
                           {Step::kSecond, 60, 60},
                           {Step::kSecond, 120, 120},
                           {Step::kSecond, 300, 300},
                           {Step::kSecond, 600, 600},
                           {Step::kSecond, 900, 900},
                           {Step::kSecond, 1800, 1800},
                           {Step::kHours, 1, kHour},
                           {Step::kHours, 2, 2 * kHour},
                           {Step::kHours, 3, 3 * kHour},
                           {Step::kHours, 6, 6 * kHour},
                           {Step::kHours, 12, 12 * kHour},
                           {Step::kDays, 1, kDay},
                           {Step::kDays, 2, 2 * kDay},
                           {Step::kDays, 7, 7 * kDay},
                           {Step::kMonths, 1, 30 * kDay},
                           {Step::kMonths, 3, 91 * kDay},
                           {Step::kMonths, 6, 182 * kDay},
                           {Step::kMonths, 12, 365 * kDay},
                           {Step::kMonths, 60, 1826 * kDay},
                           {Step::kMonths, 240, 7305 * kDay}};

const Step& ChooseStep(int64_t length, int limit) {
  for (const Step& step : kSteps) {
    if (length / step.seconds < std::max(limit, 2)) return step;
  }
  return kSteps[std::size(kSteps) - 1];
}

// Days are counted from a Monday, so that weeks start on one.
bool IsAligned(const std::tm& day, const Step& step) {
  std::tm utc = day;
  utc.tm_hour = utc.tm_min = utc.tm_sec = 0;
  return (timegm(&utc) / kDay - 4) % step.count == 0;
}

// The moments, by the calendar and the clock on the wall: the zone's rules decide what a day is.
std::vector<int64_t> MomentsOf(int64_t since, int64_t until, const Step& step) {
  std::vector<int64_t> moments;
  std::tm local = LocalTime(since);
  if (step.unit == Step::kSecond) {
    const int64_t zone = local.tm_gmtoff;
    int64_t time = (since + zone + step.count - 1) / step.count * step.count - zone;
    for (; time <= until; time += step.count) moments.push_back(time);
    return moments;
  }
  local.tm_min = local.tm_sec = 0;
  if (step.unit == Step::kHours) local.tm_hour -= local.tm_hour % step.count;
  if (step.unit != Step::kHours) local.tm_hour = 0;
  if (step.unit == Step::kMonths) {
    local.tm_mday = 1;
    local.tm_mon -= (local.tm_year * 12 + local.tm_mon) % step.count;
  }
  for (int64_t time = 0; time <= until;) {
    std::tm moment = local;
    moment.tm_isdst = -1;
    time = mktime(&moment);
    const bool aligned = step.unit == Step::kHours  ? moment.tm_hour % step.count == 0  // the clock may be set
                         : step.unit == Step::kDays ? IsAligned(moment, step)
                                                    : true;
    if (time >= since && time <= until && aligned && (moments.empty() || time > moments.back())) {
      moments.push_back(time);
    }
    if (step.unit == Step::kHours) local.tm_hour += step.count;
    if (step.unit == Step::kDays) local.tm_mday++;
    if (step.unit == Step::kMonths) local.tm_mon += step.count;
  }
  return moments;
}

std::string Format(const char* format, const std::tm& time) {
  std::ostringstream text;
  text << std::put_time(&time, format);
  return text.str();
}

}  // namespace

std::vector<Span> Merge(const std::vector<Span>& spans, int64_t since, int64_t until) {
  std::vector<Span> sorted;
  for (const Span& span : spans) {
    const Span cut = {std::max(span.begin, since), std::min(span.end, until), span.growing};
    if (cut.begin < cut.end) sorted.push_back(cut);
  }
  const auto ascending = [](const Span& a, const Span& b) { return a.begin < b.begin; };
  if (!std::is_sorted(sorted.begin(), sorted.end(), ascending))
    std::sort(sorted.begin(), sorted.end(), ascending);
  std::vector<Span> merged;
  for (Span span : sorted) {
    if (!merged.empty()) span.begin = std::max(span.begin, merged.back().end);
    if (span.begin >= span.end) continue;
    if (!merged.empty() && merged.back().end == span.begin && merged.back().growing == span.growing) {
      merged.back().end = span.end;
    } else {
      merged.push_back(span);
    }
  }
  return merged;
}

std::vector<Span> GapsOf(const TimelineRow& row, const Timeline& timeline) {
  const std::vector<Span> merged = Merge(row.spans, timeline.since, timeline.until);
  std::vector<Span> gaps;
  if (merged.empty()) return gaps;
  int64_t from = timeline.before != 0 ? timeline.since : merged.front().begin;
  for (const Span& span : merged) {
    if (span.begin > from) gaps.push_back({from, span.begin, false});
    from = span.end;
  }
  if (timeline.after != 0 && from < timeline.until) gaps.push_back({from, timeline.until, false});
  return gaps;
}

double CoverageOf(const TimelineRow& row, const Timeline& timeline) {
  int64_t covered = 0;
  for (const Span& span : Merge(row.spans, timeline.since, timeline.until)) covered += span.end - span.begin;
  return static_cast<double>(covered) / static_cast<double>(timeline.until - timeline.since);
}

std::vector<Cell> CellsOf(const TimelineRow& row, const Timeline& timeline, int width) {
  // In units of 1/width seconds, a cell is as long as the timeline is in seconds: no rounding anywhere.
  const int64_t length = timeline.until - timeline.since;
  std::vector<int64_t> covered(width, 0);
  std::vector<Cell> cells(width);
  for (const Span& span : Merge(row.spans, timeline.since, timeline.until)) {
    const int64_t begin = (span.begin - timeline.since) * width;
    const int64_t end = (span.end - timeline.since) * width;
    for (int64_t cell = begin / length; cell < width && cell * length < end; cell++) {
      covered[cell] += std::min(end, (cell + 1) * length) - std::max(begin, cell * length);
      cells[cell].growing = cells[cell].growing || span.growing;
    }
  }
  for (int cell = 0; cell < width; cell++) {
    if (covered[cell] == 0) continue;
    const auto part = static_cast<int>(covered[cell] * (kFullLevel - 1) / length);
    cells[cell].level = covered[cell] == length ? kFullLevel : std::min(1 + part, kFullLevel - 1);
  }
  return cells;
}

std::string HintBefore(const Timeline& timeline) {
  if (timeline.before == 0) return "";
  if (timeline.before == timeline.since) return "recordings go on before";
  return "recordings before, up to " + FormatTime(timeline.before);
}

std::string HintAfter(const Timeline& timeline) {
  if (timeline.after == 0) return "";
  if (timeline.after == timeline.until) return "recordings go on after";
  return "recordings after, from " + FormatTime(timeline.after);
}

std::vector<Tick> TicksOf(int64_t since, int64_t until, int limit) {
  const Step& step = ChooseStep(until - since, limit);
  std::vector<Tick> ticks;
  std::string lastDay;
  for (const int64_t time : MomentsOf(since, until, step)) {
    const std::tm local = LocalTime(time);
    Tick tick;
    tick.time = time;
    if (step.unit == Step::kMonths) {
      tick.label = Format(step.count >= 12 ? "%Y" : "%b %Y", local);
    } else if (step.unit == Step::kDays) {
      tick.label = Format("%d %b", local);
      tick.day = Format("%Y", local);
    } else {
      tick.label = Format(step.seconds < 60 ? "%H:%M:%S" : "%H:%M", local);
      tick.day = Format("%a %d %b %Y", local);
    }
    if (tick.day == lastDay) {
      tick.day.clear();
    } else {
      lastDay = tick.day;
    }
    ticks.push_back(tick);
  }
  return ticks;
}

}  // namespace recorder
