// SPDX-License-Identifier: Apache-2.0
// The natural logarithm, correctly rounded: a double-double phase with a table of reciprocals, a
// rounding test, and one exact correction of the result in wide fixed point for what fails it.
//
// log(x) = k log 2 - log(c) + log1p(m c - 1), x = 2^k m, m in [0.70, 1.42], c near 1/m with 10
// bits.
#pragma once

#include "exponential.h"

namespace korvex::arithmetic {

// x = m * 2^exponent with its table entry.
struct LogArgument {
  double m;
  int exponent;
  int entry;
};

// Precondition: x is positive and finite.
KORVEX_INLINE LogArgument log_argument(double x) {
  int exponent = 0;
  if (exponent_field(x) == 0) {  // subnormal: exact scaling
    x = mul_rn(x, 0x1p+54);
    exponent = -54;
  }
  exponent += exponent_field(x) - kExponentBias;
  const std::uint64_t fraction = to_bits(x) & kFractionMask;
  const auto entry = static_cast<int>(fraction >> (kFractionBits - 8));
  const bool halved = entry >= kLogHalfFrom;
  const auto field = static_cast<std::uint64_t>(kExponentBias - (halved ? 1 : 0));
  return {from_bits(fraction | (field << kFractionBits)), exponent + (halved ? 1 : 0), entry};
}

// log1p(r) - r + r^2/2 for |r| < 2^-8; the first term left out, r^10/10, is below 2^-75 |r|.
KORVEX_INLINE double log_tail(double r, double r_squared) {
  double tail = fma_rn(r, 0x1.c71c71c71c71cp-4, -0x1p-3);  // r^9/9, r^8/8
  tail = fma_rn(r, tail, 0x1.2492492492492p-3);            // r^7/7
  tail = fma_rn(r, tail, -0x1.5555555555555p-3);           // r^6/6
  tail = fma_rn(r, tail, 0x1.999999999999ap-3);            // r^5/5
  tail = fma_rn(r, tail, -0x1p-2);                         // r^4/4
  tail = fma_rn(r, tail, 0x1.5555555555555p-2);            // r^3/3
  return mul_rn(mul_rn(r_squared, r), tail);
}

// Relative error below 2^-67.5. Precondition: x is positive and finite.
KORVEX_INLINE ValueAndError log_pair(double x) {
  const LogArgument a = log_argument(x);
  const LogEntry& t = kLogTable[a.entry];
  const ValueAndError product = two_product(a.m, t.reciprocal);
  const double rh = sub_rn(product.value, 1.0);  // exact (Sterbenz)
  const double rl = product.error;
  const ValueAndError square = two_product(rh, rh);
  const double tail = log_tail(rh, square.value);
  // rl (1 - r + r^2); r^3 rl, left out, is below 2^-77
  const double cross = fma_rn(fma_rn(rh, rh, -rh), rl, rl);
  const double rest = add_rn(fma_rn(-0.5, square.error, cross), tail);
  const ValueAndError series = fast_two_sum(rh, mul_rn(-0.5, square.value));
  const auto k = static_cast<double>(a.exponent);
  const ValueAndError table = two_sum(mul_rn(k, kLn2High), t.high);
  const double table_low = add_rn(table.error, fma_rn(k, kLn2Low, t.low));
  const ValueAndError sum = two_sum(table.value, series.value);
  const double low = add_rn(add_rn(sum.error, table_low), add_rn(series.error, rest));
  return fast_two_sum(sum.value, low);
}

// A signed fixed-point number.
template <int W>
struct SignedFixed {
  Fixed<W> magnitude;
  bool negative;
};

template <int W>
KORVEX_HD SignedFixed<W> sum_of(const SignedFixed<W>& a, const SignedFixed<W>& b) {
  if (a.negative == b.negative) return {a.magnitude + b.magnitude, a.negative};
  if (a.magnitude < b.magnitude) return {b.magnitude - a.magnitude, b.negative};
  return {a.magnitude - b.magnitude, a.negative};
}

// log(1 + z) for |z| < 2^-40, until the terms vanish.
template <int W>
KORVEX_COLD SignedFixed<W> fixed_log1p(const SignedFixed<W>& z) {
  SignedFixed<W> sum = z;
  Fixed<W> power = z.magnitude;
  for (std::uint64_t n = 2;; ++n) {
    power = power * z.magnitude;
    const Fixed<W> term = divided(power, n);
    if (is_zero(term)) return sum;
    const bool negative = n % 2 == 0 || z.negative;  // -z^2/2, +z^3/3 with the sign of z
    sum = sum_of(sum, SignedFixed<W>{term, negative});
  }
}

// log(x) = y + log1p(x exp(-y) - 1), for the double y that is nearly log(x).
KORVEX_COLD inline double accurate_log(double x, double y) {
  constexpr int kWords = 5;
  const FixedExp<kWords> e = fixed_exp(fixed_magnitude<kWords>(y), !is_negative(y));
  // significand(x) exp(-y) 2^..., which is 1 but for z
  const int exponent = e.exponent + shift(x) + kUnitExponent;
  const std::uint64_t bits = significand(x);
  // bits < 2^53, so the product fits its integer word; exponent is about -log2(bits).
  const Fixed<kWords> product = shifted_down(times(e.fixed, bits), -exponent);
  const Fixed<kWords> one = fixed_from<kWords>(1, 0);
  const bool below = product < one;
  const SignedFixed<kWords> z{below ? one - product : product - one, below};
  const SignedFixed<kWords> start{fixed_magnitude<kWords>(y), is_negative(y)};
  const SignedFixed<kWords> sum = sum_of(start, fixed_log1p(z));
  const double value = rounded(sum.magnitude, 0, kFixedExpUncertainBits + 2).value;
  return sum.negative ? -value : value;
}

constexpr double kLogError = 0x1p-66;  // proved: 2^-67.5

// RN(log(x)) for every x.
KORVEX_INLINE double logarithm(double x) {
  if (is_nan(x)) return canonical_nan();
  if (x == 0.0) return -infinity();
  if (is_negative(x)) return canonical_nan();
  if (!is_finite(x)) return x;
  if (x == 1.0) return 0.0;
  const ValueAndError y = log_pair(x);
  const Rounded sum = rounding_test(y.value, y.error, mul_rn(y.value, kLogError));
  return sum.decided ? sum.value : accurate_log(x, sum.value);
}

// The fast phase alone, for those who try it first: undecided for what is not a positive normal
// number, and where the rounding test fails.
KORVEX_INLINE Rounded try_logarithm(double x) {
  constexpr std::uint64_t kLeastNormal = std::uint64_t{1} << kFractionBits;
  if (to_bits(x) - kLeastNormal >= kInfinityBits - kLeastNormal) return {x, false};
  const ValueAndError y = log_pair(x);
  return rounding_test(y.value, y.error, mul_rn(y.value, kLogError));
}

}  // namespace korvex::arithmetic
