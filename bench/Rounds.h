// Times of several ways to do the same, taken in turns: what disturbs one of them disturbs the others as well,
// so that their ratio repeats where the times don't.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace bench {

struct Contender {
  int operations = 1;           // in one round
  std::function<void()> round;  // timed
  std::function<void()> before = {};
  std::function<void()> after = {};
};

class Times {
 public:
  // Seconds an operation: [contender][round].
  explicit Times(std::vector<std::vector<double>> seconds) : mSeconds(std::move(seconds)) {}

  double Median(size_t contender) const;
  // The median over rounds of the ratio that the two had in the same round.
  double Ratio(size_t contender, size_t other) const;
  // The same of what `contender` takes more than `less`.
  double MedianOfDifference(size_t contender, size_t less) const;
  double RatioOfDifference(size_t contender, size_t less, size_t other) const;

 private:
  double MedianOf(const std::function<double(size_t round)>& value) const;
  std::vector<std::vector<double>> mSeconds;
};

// Each contender once for warming up, then `rounds` times round robin.
Times TakeTurns(int rounds, const std::vector<Contender>& contenders);

}  // namespace bench
