// SPDX-License-Identifier: Apache-2.0
// Normalisation by the root of the mean square, correctly rounded but for a case that is not known
// to occur: x / sqrt(S / n + eps) for each of n numbers x, S the exact sum of their squares.
//
// Phases: T = S + n * eps, exact, in a long accumulator; R = sqrt(n / T) to 512 bits, one root for
// all elements; each element times the leading 106 bits of R, and times all of R where that does
// not decide the rounding. What is then still within 2^-455 of a midpoint counts as the midpoint
// and goes to the even neighbour: where T has no more than 340 bits, it is one.
//
// What is not finite follows the formula in IEEE arithmetic: NaN in x or eps, or T < 0, makes all
// NaN; an infinite T makes finite elements zeros of their sign and infinite ones NaN; T = 0 makes
// zeros NaN and, with a negative eps, other elements infinities.
#pragma once

#include "korvex/arithmetic/bignum/fixed.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/elementary/exponential.h"

namespace korvex::arithmetic {

constexpr int kRootWords = 9;
constexpr int kRootFraction = 64 * (kRootWords - 1);  // bits after the point
using RootFixed = Fixed<kRootWords>;

// R = root * 2^exponent. Where T is 0 or not finite, or below 0, `special` is what elements are
// multiplied by instead: an infinity, 0, or NaN; else it is 1.
struct InverseRoot {
  RootFixed root;  // in [1/2, 2), fewer than 8 units too small or too large
  double high;     // the first 53 bits of root
  double low;      // the next 53
  int exponent;
  double special;
};

KORVEX_HD inline InverseRoot special_root(double special) {
  InverseRoot result{};
  result.special = special;
  return result;
}

// sqrt(n / T) for the positive T that a settled accumulator holds, its highest bit at `top`.
KORVEX_HD inline InverseRoot root_of_quotient(std::int64_t n, const ProductAccumulator& t,
                                              int top) {
  const auto count = static_cast<std::uint64_t>(n);
  const int count_exponent = 63 - leading_zeros(count);
  // n and T by their highest bits on, both in [1, 2); the quotient, in (1/2, 2), is less than 4
  // units off.
  const auto numerator = fixed_from<kRootWords>(count, -count_exponent);
  const auto denominator = shifted_down<kRootWords>(t, top - kRootFraction);
  KORVEX_ONE_IN_BLOCK RootFixed ratio;
  ratio = fixed_quotient(numerator, denominator);
  int exponent = count_exponent - (top + ProductAccumulator::kLowestExponent);
  if ((exponent & 1) != 0) {
    shift_up(ratio, 1);
    --exponent;
  }
  KORVEX_ONE_IN_BLOCK InverseRoot result;
  fixed_square_root(ratio, result.root);
  result.exponent = exponent / 2;
  result.special = 1;
  const int high = highest_bit(result.root) - kFractionBits;
  const int low = high - 53;
  constexpr std::uint64_t kBits53 = 0x1fffffffffffff;
  result.high = mul_rn(static_cast<double>(bits_from(result.root, high) & kBits53),
                       power_of_two(high - kRootFraction));  // exact
  result.low = mul_rn(static_cast<double>(bits_from(result.root, low) & kBits53),
                      power_of_two(low - kRootFraction));  // exact
  return result;
}

// squares: the sum of the finite squares, destroyed. Precondition: n > 0.
KORVEX_COLD inline InverseRoot inverse_root(ProductAccumulator& squares, bool any_nan,
                                            bool any_infinite, std::int64_t n, double eps) {
  if (any_nan || is_nan(eps) || eps == -infinity()) {
    return special_root(canonical_nan());
  }
  if (any_infinite || eps == infinity()) {
    return special_root(0.0);
  }
  squares.add_product(eps, mul_rn(static_cast<double>(n >> 32), 0x1p+32));      // exact
  squares.add_product(eps, static_cast<double>(n & std::int64_t{0xffffffff}));  // exact
  if (!squares.settle_to_read()) {
    return special_root(canonical_nan());
  }
  const int top = highest_bit(squares);
  return top < 0 ? special_root(infinity()) : root_of_quotient(n, squares, top);
}

// |x| R with all bits of R; ties to even.
KORVEX_COLD inline double accurate_normalised(double x, const InverseRoot& r) {
  constexpr int kUncertainBits = 57;  // 8 units times a significand, and one bit
  RootFixed product = r.root * significand(x);
  const int exponent = r.exponent + shift(x) + kUnitExponent;
  const Rounded result = rounded(product, exponent, kUncertainBits);
  if (result.is_decided) {
    return result.value;
  }
  const RootFixed margin{{std::uint64_t{1} << (kUncertainBits + 3)}};
  subtract(product, margin, product);
  const double below = nearest(product, exponent - kRootFraction, false);
  add(product, margin + margin, product);
  const double above = nearest(product, exponent - kRootFraction, false);
  return (to_bits(below) & 1) == 0 ? below : above;
}

constexpr double kNormalisedError = 0x1p-100;  // proved: 2^-103

// RN(x R), for the root of x and its fellows.
KORVEX_INLINE double normalised(double x, const InverseRoot& r) {
  if (r.special != 1 || !is_finite(x)) {
    const double result = mul_rn(x, r.special);
    return is_nan(result) ? canonical_nan() : result;
  }
  if (x == 0) {
    return x;
  }
  const bool subnormal = exponent_field(x) == 0;
  const double normal = subnormal ? mul_rn(x, 0x1p+54) : x;  // exact
  const int exponent = exponent_field(normal) - kExponentBias - (subnormal ? 54 : 0) + r.exponent;
  const std::uint64_t one = static_cast<std::uint64_t>(kExponentBias) << kFractionBits;
  const double m = from_bits((to_bits(normal) & kFractionMask) | one);
  double magnitude = infinity();
  if (exponent < -1080) {
    magnitude = 0.0;
  } else if (exponent <= 1024) {
    const ValueAndError product = two_product(m, r.high);                             // exact
    const ScaledPair pair{product.value, fma_rn(m, r.low, product.error), exponent};  // rounded
    const Rounded fast = round_pair(pair, kNormalisedError);
    magnitude = fast.is_decided ? fast.value : accurate_normalised(x, r);
    if (!is_finite(magnitude)) {
      magnitude = infinity();  // the encoding ran over
    }
  }
  return is_negative(x) ? -magnitude : magnitude;
}

}  // namespace korvex::arithmetic
