#include "platform/host/imf/ImfCoverage.h"

#include <algorithm>

namespace {

constexpr int64_t kShortGap = 2000000;            // microseconds: no gap yet
constexpr int64_t kTimeLimit = int64_t{1} << 52;  // no sum below overflows
constexpr int64_t kFewSteps = 3;                  // too few to tell what is usual
constexpr size_t kRunLimit = 4096;                // of a channel

int64_t LimitOf(int64_t interval) { return std::max(kShortGap, interval + interval / 2); }

}  // namespace

void ImfCoverage::Add(const ImfEntry& entry) {
  if (!entry.isPacket || entry.kind != ImfKind::kVideo || entry.time < 0 || entry.time >= kTimeLimit) return;
  Channel& channel = mChannels[static_cast<size_t>(entry.channel)];
  std::vector<Run>& runs = channel.runs;
  const int64_t time = entry.time;
  ++channel.pictures;
  const auto next = std::upper_bound(runs.begin(), runs.end(), time,
                                     [](int64_t value, const Run& run) { return value < run.first; });
  if (next != runs.begin() && time - std::prev(next)->last <= kShortGap) {
    const auto run = std::prev(next);
    if (time >= run->last) {
      run->last = time;
      run->duration = entry.duration;
    }
    if (next == runs.end() || next->first - run->last > kShortGap) return;
    run->last = next->last;
    run->duration = next->duration;
    runs.erase(next);
  } else if (next != runs.end() && next->first - time <= kShortGap) {
    next->first = time;
  } else {
    runs.insert(next, {time, time, entry.duration});
    if (runs.size() > kRunLimit) Shorten(&channel);
  }
}

int64_t ImfCoverage::IntervalOf(const Channel& channel) {
  const std::vector<Run>& runs = channel.runs;
  std::vector<int64_t> steps;  // between runs; all those within one count as their mean
  int64_t within = 0;
  int64_t shortest = 0;
  for (size_t i = 0; i < runs.size(); ++i) {
    if (i > 0) steps.push_back(runs[i].first - runs[i - 1].last);
    within += runs[i].last - runs[i].first;
    const int64_t duration = runs[i].duration;
    if (duration > 0 && (shortest == 0 || duration < shortest)) shortest = duration;
  }
  const int64_t all = channel.pictures - 1;
  const int64_t count = all - static_cast<int64_t>(steps.size());
  const int64_t mean = count > 0 ? within / count : 0;
  if (all < kFewSteps) return shortest > 0 ? shortest : mean;
  const int64_t middle = (all - 1) / 2;
  if (middle < count) return mean;
  const auto median = steps.begin() + static_cast<std::ptrdiff_t>(middle - count);
  std::nth_element(steps.begin(), median, steps.end());
  return *median;
}

std::vector<ImfCoverage::Run> ImfCoverage::Join(const std::vector<Run>& runs, int64_t limit) {
  std::vector<Run> joined;
  for (const Run& run : runs) {
    if (!joined.empty() && run.first - joined.back().last <= limit) {
      joined.back().last = run.last;
      joined.back().duration = run.duration;
    } else {
      joined.push_back(run);
    }
  }
  return joined;
}

void ImfCoverage::Shorten(Channel* channel) {
  std::vector<Run>& runs = channel->runs;
  runs = Join(runs, LimitOf(IntervalOf(*channel)));
  if (runs.size() <= kRunLimit / 2) return;
  std::vector<int64_t> gaps;
  for (size_t i = 1; i < runs.size(); ++i) gaps.push_back(runs[i].first - runs[i - 1].last);
  const auto median = gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2);
  std::nth_element(gaps.begin(), median, gaps.end());
  runs = Join(runs, *median);
}

std::vector<PictureSpan> ImfCoverage::Spans() const {
  std::vector<PictureSpan> spans;
  for (size_t number = 0; number < mChannels.size(); ++number) {
    const Channel& channel = mChannels[number];
    if (channel.runs.empty()) continue;
    const int64_t interval = IntervalOf(channel);
    for (const Run& run : Join(channel.runs, LimitOf(interval))) {
      const int64_t length = run.duration > 0 ? std::min(run.duration, interval) : interval;
      spans.push_back({static_cast<int32_t>(number), run.first, run.last + std::max<int64_t>(length, 1)});
    }
  }
  return spans;
}

bool ReadCoverage(const std::string& path, uint32_t startTime, std::vector<PictureSpan>* spans) {
  ImfReader reader;
  ImfCoverage coverage;
  if (!reader.Open(path) || reader.StartTime() != startTime) return false;
  if (!reader.List([&](const ImfEntry& entry) { coverage.Add(entry); })) return false;
  *spans = coverage.Spans();
  return true;
}
