// SPDX-License-Identifier: Apache-2.0
// Seeded data for property tests and the fuzzer, the same under every compiler.
//
// The order of arguments and operands is the compiler's choice, so each draw that another one
// stands beside has a statement of its own, here and wherever these are called.
#pragma once

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "check.h"

namespace korvex::test {

// splitmix64: Steele, Lea and Flood, Fast splittable pseudorandom number generators, 2014.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t bits() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
  }

  // From 0 to limit - 1.
  int below(int limit) { return static_cast<int>(bits() % static_cast<std::uint64_t>(limit)); }
  int between(int low, int high) { return low + below(high - low + 1); }
  double sign() { return (bits() & 1) != 0 ? -1.0 : 1.0; }

  // 53 random bits in [1, 2), times 2^exponent, with a random sign.
  double with_exponent(int exponent) {
    const double drawn_sign = sign();
    const auto fraction = static_cast<double>(bits() >> 12);
    return drawn_sign * std::ldexp(1.0 + std::ldexp(fraction, -52), exponent);
  }

  double any_finite() {
    for (;;) {
      const double x = double_of(bits());
      if (std::isfinite(x)) {
        return x;
      }
    }
  }

 private:
  std::uint64_t state_;
};

enum class Shape {
  kNarrow,    // a few binades
  kWide,      // 120 binades
  kAnyBits,   // every finite double alike
  kPowers,    // powers of two, where ties and cancellation live
  kHuge,      // near the overflow threshold
  kTiny,      // around the subnormal numbers
  kShifting,  // a level that moves along the array, so plans go stale
  kIntegers,  // small integers
  kCount
};

inline double draw(Random& random, Shape shape, std::size_t index) {
  switch (shape) {
    case Shape::kNarrow:
      return random.with_exponent(random.between(-3, 1));
    case Shape::kWide:
      return random.with_exponent(random.between(-60, 60));
    case Shape::kAnyBits:
      return random.any_finite();
    case Shape::kPowers: {
      const double sign = random.sign();
      return sign * std::ldexp(1.0, random.between(-110, 3));
    }
    case Shape::kHuge:
      return random.with_exponent(random.between(1000, 1023));
    case Shape::kTiny: {
      const double sign = random.sign();
      const std::uint64_t bits = random.bits();
      return sign * double_of(bits >> random.between(9, 63));
    }
    case Shape::kShifting:
      return random.with_exponent(static_cast<int>(index / 700 * 131 % 1900) - 950);
    default:
      return random.between(-1000, 1000);
  }
}

// count numbers of a shape; with `cancel`, the second half takes back the first in another order.
inline std::vector<double> draw_many(Random& random, Shape shape, std::size_t count, bool cancel) {
  std::vector<double> x(count);
  const std::size_t fresh = cancel ? count / 2 : count;
  for (std::size_t i = 0; i < fresh; ++i) {
    x[i] = draw(random, shape, i);
    if (cancel) {
      x[count - 1 - i] = -x[i];
    }
  }
  if (cancel) {
    for (std::size_t i = count; i > 1; --i) {
      std::swap(x[i - 1], x[static_cast<std::size_t>(random.below(static_cast<int>(i)))]);
    }
  }
  return x;
}

}  // namespace korvex::test
