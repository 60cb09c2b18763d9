// Sums of times that nobody vouches for: they stop at the ends of 64 bits.
#pragma once

#include <cstdint>

namespace recorder {

inline int64_t Plus(int64_t a, int64_t b) {
  int64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? (a < 0 ? INT64_MIN : INT64_MAX) : sum;
}

inline int64_t Minus(int64_t a, int64_t b) {
  int64_t difference = 0;
  return __builtin_sub_overflow(a, b, &difference) ? (a < 0 ? INT64_MIN : INT64_MAX) : difference;
}

}  // namespace recorder
