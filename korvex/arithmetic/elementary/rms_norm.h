// SPDX-License-Identifier: Apache-2.0
// x / sqrt(S / n + eps), S the exact sum of the squares of n numbers: one root for all elements in
// wide fixed point, one product and one rounding test for each.
//
// Phases: T = S + n * eps, exact, in a long accumulator; R = sqrt(n / T) to 512 bits; each element
// times the leading 106 bits of R, and times all of R where that does not decide the rounding. What
// is then still within 2^-455 of a midpoint counts as the midpoint and goes to the even neighbour:
// where T has no more than 340 bits, it is one.
//
// What is not finite follows the formula in IEEE arithmetic: NaN in x or eps, or T < 0, makes all
// NaN; an infinite T makes finite elements zeros of their sign and infinite ones NaN; T = 0 makes
// zeros NaN and, with a negative eps, other elements infinities.
#pragma once

#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/elementary/exponential.h"

namespace korvex::arithmetic {

constexpr int kRootWords = 9;
using WideRoot = Fixed<kRootWords>;

// R = root * 2^exponent. Where T is 0 or not finite, or below 0, `special` is what elements are
// multiplied by instead: an infinity, 0, or NaN; else it is 1.
struct InverseRoot {
  WideRoot root;  // in [1/2, 2), fewer than 8 units too small or too large
  double high;    // the first 53 bits of root
  double low;     // the next 53
  int exponent;
  double special;
};

// floor(sqrt(a)) in units, digit by digit. Precondition: a < 4.
KORVEX_COLD inline WideRoot fixed_square_root(const WideRoot& a) {
  WideRoot root;
  WideRoot rest;  // of what was read minus root^2, as integers; at most 2 * root
  constexpr int kFraction = 64 * (kRootWords - 1);
  for (int position = kFraction; position > -kFraction - 2; position -= 2) {
    rest = shifted_up(rest, 2);
    rest.word[0] |= position >= 0 ? bits_from(a, position) & 3 : 0;
    WideRoot trial = shifted_up(root, 2);
    trial.word[0] |= 1;
    root = shifted_up(root, 1);
    if (!(rest < trial)) {
      rest = rest - trial;
      root.word[0] |= 1;
    }
  }
  return root;
}

// The bits of a settled accumulator from its highest on, as a number in [1, 2).
KORVEX_COLD inline WideRoot leading_bits(const ProductAccumulator& sum, int top) {
  WideRoot leading;
  for (int i = 0; i < kRootWords; ++i) {
    const int position = top - 64 * (kRootWords - 1 - i);
    if (position >= 0) {
      leading.word[i] = sum.bits_from(position);
    } else if (position > -64) {
      leading.word[i] = sum.bits_from(0) << -position;
    }
  }
  return leading;
}

KORVEX_HD inline InverseRoot special_root(double special) {
  InverseRoot result;
  result.high = result.low = 0;
  result.exponent = 0;
  result.special = special;
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
  const int top = squares.top_bit();
  if (top < 0) {
    return special_root(infinity());
  }
  const auto count = static_cast<std::uint64_t>(n);
  const int count_exponent = 63 - leading_zeros(count);
  // Both in [1, 2); the quotient, in (1/2, 2), is less than 4 units off.
  WideRoot ratio =
      quotient(fixed_from<kRootWords>(count, -count_exponent), leading_bits(squares, top));
  int exponent = count_exponent - (top + ProductAccumulator::kLowestExponent);
  if ((exponent & 1) != 0) {
    ratio = shifted_up(ratio, 1);
    --exponent;
  }
  InverseRoot result;
  result.root = fixed_square_root(ratio);
  result.exponent = exponent / 2;
  result.special = 1;
  const int high = highest_bit(result.root) - kFractionBits;
  const int low = high - 53;
  constexpr int kUnit = -64 * (kRootWords - 1);
  constexpr std::uint64_t kBits53 = 0x1fffffffffffff;
  result.high = mul_rn(static_cast<double>(bits_from(result.root, high) & kBits53),
                       power_of_two(high + kUnit));
  result.low =
      mul_rn(static_cast<double>(bits_from(result.root, low) & kBits53), power_of_two(low + kUnit));
  return result;
}

// |x| R with all bits of R; ties to even.
KORVEX_COLD inline double accurate_normalised(double x, const InverseRoot& r) {
  constexpr int kUncertainBits = 57;  // 8 units times a significand, and one bit
  const WideRoot product = times(r.root, significand(x));
  const int exponent = r.exponent + shift(x) + kUnitExponent;
  const Rounded result = rounded(product, exponent, kUncertainBits);
  if (result.decided) {
    return result.value;
  }
  WideRoot margin;
  margin.word[0] = std::uint64_t{1} << (kUncertainBits + 3);
  const double below = rounded(product - margin, exponent, kUncertainBits).value;
  const double above = rounded(product + margin, exponent, kUncertainBits).value;
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
    const ValueAndError product = two_product(m, r.high);  // exact
    const ScaledPair pair{product.value, fma_rn(m, r.low, product.error), exponent};
    const Rounded fast = round_pair(pair, kNormalisedError);
    magnitude = fast.decided ? fast.value : accurate_normalised(x, r);
    if (!is_finite(magnitude)) {
      magnitude = infinity();  // the encoding ran over
    }
  }
  return is_negative(x) ? -magnitude : magnitude;
}

}  // namespace korvex::arithmetic
