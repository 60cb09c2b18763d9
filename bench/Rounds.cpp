#include "bench/Rounds.h"

#include <sys/resource.h>
#include <algorithm>
#include <ctime>

namespace bench {

namespace {

double Now() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  rusage children = {};
  getrusage(RUSAGE_CHILDREN, &children);
  const auto seconds = [](const timeval& of) {
    return static_cast<double>(of.tv_sec) + 1e-6 * static_cast<double>(of.tv_usec);
  };
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec) +
         seconds(children.ru_utime) + seconds(children.ru_stime);
}

}  // namespace

double Times::MedianOf(const std::function<double(size_t round)>& value) const {
  std::vector<double> values;
  for (size_t round = 0; round < mSeconds[0].size(); ++round) values.push_back(value(round));
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double Times::Median(size_t contender) const {
  return MedianOf([&](size_t round) { return mSeconds[contender][round]; });
}

double Times::Ratio(size_t contender, size_t other) const {
  return MedianOf([&](size_t round) { return mSeconds[contender][round] / mSeconds[other][round]; });
}

double Times::MedianOfDifference(size_t contender, size_t less) const {
  return MedianOf([&](size_t round) { return mSeconds[contender][round] - mSeconds[less][round]; });
}

double Times::RatioOfDifference(size_t contender, size_t less, size_t other) const {
  return MedianOf([&](size_t round) {
    return (mSeconds[contender][round] - mSeconds[less][round]) / mSeconds[other][round];
  });
}

Times TakeTurns(int rounds, const std::vector<Contender>& contenders) {
  std::vector<std::vector<double>> seconds(contenders.size());
  for (int round = -1; round < rounds; ++round) {
    for (size_t i = 0; i < contenders.size(); ++i) {
      const Contender& contender = contenders[i];
      if (contender.before) contender.before();
      const double begin = Now();
      contender.round();
      const double taken = Now() - begin;
      if (contender.after) contender.after();
      if (round >= 0) seconds[i].push_back(taken / contender.operations);
    }
  }
  return Times(std::move(seconds));
}

}  // namespace bench
