// SPDX-License-Identifier: Apache-2.0
// An exact number as a plain array of bits: slow, and nothing in common with the code under test.
//
// Positive and negative addends are summed apart, one bit at a time from frexp, with a carry that
// walks; rounding reads the difference from its top bit down and builds the double with ldexp.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace korvex::test {

// kBelow: bits below 2^-1074, none for sums and 1074 for sums of products.
template <int kBelow>
class BasicBitNumber {
 public:
  void add(double x) {
    int exponent = 0;
    std::uint64_t mantissa = split(x, exponent);
    auto& bits = x < 0 ? negative_ : positive_;
    for (int i = 0; i < 53; ++i, mantissa >>= 1) {
      if ((mantissa & 1) != 0) {
        increment(bits, exponent + i + 1074 + kBelow);
      }
    }
  }

  void add_product(double x, double y) {
    int x_exponent = 0;
    int y_exponent = 0;
    Wide mantissa = static_cast<Wide>(split(x, x_exponent)) * split(y, y_exponent);
    auto& bits = (x < 0) != (y < 0) ? negative_ : positive_;
    for (int i = 0; i < 106; ++i, mantissa >>= 1) {
      if ((mantissa & 1) != 0) {
        increment(bits, x_exponent + y_exponent + i + 1074 + kBelow);
      }
    }
  }

  // The double nearest to the value, ties to even, an infinity where that overflows.
  double rounded() const {
    Bits magnitude{};
    const bool below_zero = is_less(positive_, negative_);
    subtract(below_zero ? negative_ : positive_, below_zero ? positive_ : negative_, magnitude);
    const double result = rounded_magnitude(magnitude);
    return below_zero ? 0.0 - result : result;
  }

 private:
  __extension__ using Wide = unsigned __int128;
  static constexpr int kWidth = 2200 + 2 * kBelow;
  using Bits = std::array<unsigned char, kWidth>;

  // |x| = mantissa * 2^exponent
  static std::uint64_t split(double x, int& exponent) {
    const double fraction = std::frexp(std::fabs(x), &exponent);
    exponent -= 53;
    return static_cast<std::uint64_t>(std::ldexp(fraction, 53));
  }

  static void increment(Bits& bits, int position) {
    auto i = static_cast<std::size_t>(position);
    while (bits[i] != 0) {
      bits[i++] = 0;
    }
    bits[i] = 1;
  }

  static bool is_less(const Bits& a, const Bits& b) {
    for (std::size_t i = kWidth; i-- > 0;) {
      if (a[i] != b[i]) {
        return a[i] < b[i];
      }
    }
    return false;
  }

  static void subtract(const Bits& a, const Bits& b, Bits& difference) {
    int borrow = 0;
    for (std::size_t i = 0; i < kWidth; ++i) {
      const int digit = a[i] - b[i] - borrow;
      borrow = digit < 0 ? 1 : 0;
      difference[i] = static_cast<unsigned char>(digit + 2 * borrow);
    }
  }

  static double rounded_magnitude(const Bits& bits) {
    int top = kWidth - 1;
    while (top >= 0 && bits[static_cast<std::size_t>(top)] == 0) {
      --top;
    }
    const int lowest = top > 52 + kBelow ? top - 52 : kBelow;
    double mantissa = 0;
    for (int i = top; i >= lowest; --i) {
      mantissa = 2 * mantissa + bits[static_cast<std::size_t>(i)];
    }
    if (lowest > 0 && bits[static_cast<std::size_t>(lowest - 1)] != 0) {
      bool beyond_half = false;
      for (int i = 0; i < lowest - 1; ++i) {
        beyond_half = beyond_half || bits[static_cast<std::size_t>(i)] != 0;
      }
      if (beyond_half || std::fmod(mantissa, 2.0) != 0) {
        mantissa += 1;
      }
    }
    return std::ldexp(mantissa, lowest - 1074 - kBelow);
  }

  Bits positive_{};
  Bits negative_{};
};

using BitNumber = BasicBitNumber<0>;
using ProductBitNumber = BasicBitNumber<1074>;

// The canonical limbs of the exact value of a bit number, by the definition: each limb is the
// nearest double to what the limbs before it left; one that would be infinite is the largest double
// instead, unless it is the last, which makes the result that infinity and zeros.
template <class Number>
std::vector<double> limbs_of(Number rest, int limb_count) {
  std::vector<double> limbs(static_cast<std::size_t>(limb_count), 0.0);
  for (std::size_t i = 0; i < limbs.size(); ++i) {
    limbs[i] = rest.rounded();
    if (std::isinf(limbs[i])) {
      if (i + 1 == limbs.size()) {
        const double infinite = limbs[i];
        limbs.assign(limbs.size(), 0.0);
        limbs[0] = infinite;
        return limbs;
      }
      limbs[i] = std::copysign(std::numeric_limits<double>::max(), limbs[i]);
    }
    rest.add(-limbs[i]);
  }
  return limbs;
}

// Of a sum of finite numbers.
inline std::vector<double> canonical_limbs(const std::vector<double>& addends, int limb_count) {
  BitNumber sum;
  for (const double x : addends) {
    sum.add(x);
  }
  return limbs_of(sum, limb_count);
}

// Of a sum of products of finite numbers, y[i * stride] the partner of x[i].
inline std::vector<double> canonical_product_limbs(const double* x, const double* y,
                                                   std::size_t stride, std::size_t count,
                                                   int limb_count) {
  ProductBitNumber sum;
  for (std::size_t i = 0; i < count; ++i) {
    sum.add_product(x[i], y[i * stride]);
  }
  return limbs_of(sum, limb_count);
}

}  // namespace korvex::test
