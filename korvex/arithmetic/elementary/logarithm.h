// SPDX-License-Identifier: Apache-2.0
// The natural logarithm, correctly rounded: a double-double phase with a table of reciprocals, a
// rounding test, and for what fails it one correction of the result in fixed point of 256 bits.
//
// log(x) = k log 2 - log(c) + log1p(m c - 1), x = 2^k m, m in [0.70, 1.42], c near 1/m with 10
// bits.
#pragma once

#include "korvex/arithmetic/elementary/exponential.h"

namespace korvex::arithmetic {

// x = m * 2^exponent with its table entry.
template <class Real>
struct LogArgument {
  Real m;
  typename Companions<Real>::Integer exponent;
  typename Companions<Real>::Integer entry;
};

KORVEX_INLINE const LogEntry& log_entry(int index) { return kLogTable[index]; }

// Precondition: x is positive and normal.
template <class Real>
KORVEX_INLINE LogArgument<Real> normal_log_argument(Real x) {
  const auto fraction = to_bits(x) & kFractionMask;
  const auto entry = to_integer(fraction >> (kFractionBits - 8));
  const auto halved = one_where(entry >= kLogHalfFrom);
  const auto exponent = exponent_field(x) - kExponentBias + halved;
  return {from_bits(fraction | exponent_bits(kExponentBias - halved)), exponent, entry};
}

// Precondition: x is positive and finite.
KORVEX_INLINE LogArgument<double> log_argument(double x) {
  const bool is_subnormal = exponent_field(x) == 0;
  LogArgument<double> a = normal_log_argument(is_subnormal ? mul_rn(x, 0x1p+54) : x);  // exact
  a.exponent -= is_subnormal ? 54 : 0;
  return a;
}

// log1p(r) - r + r^2/2 for |r| < 2^-8; the first term left out, r^10/10, is below 2^-75 |r|.
template <class Real>
KORVEX_INLINE Real log_tail(Real r, Real r_squared) {
  Real tail = fma_rn(r, 0x1.c71c71c71c71cp-4, -0x1p-3);  // r^9/9, r^8/8
  tail = fma_rn(r, tail, 0x1.2492492492492p-3);          // r^7/7
  tail = fma_rn(r, tail, -0x1.5555555555555p-3);         // r^6/6
  tail = fma_rn(r, tail, 0x1.999999999999ap-3);          // r^5/5
  tail = fma_rn(r, tail, -0x1p-2);                       // r^4/4
  tail = fma_rn(r, tail, 0x1.5555555555555p-2);          // r^3/3
  return mul_rn(mul_rn(r_squared, r), tail);
}

// Error below 2^-67.5 of the logarithm, and below 2^-75.5.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> log_pair(const LogArgument<Real>& a) {
  const auto& t = log_entry(a.entry);
  const auto product = two_product(a.m, Real(t.reciprocal));  // exact
  const Real rh = sub_rn(product.value, 1.0);                 // exact (Sterbenz)
  const Real rl = product.error;
  const auto square = two_product(rh, rh);       // exact
  const Real tail = log_tail(rh, square.value);  // each step rounded
  // rl (1 - r + r^2); r^3 rl, left out, is below 2^-77
  const Real cross = fma_rn(fma_rn(rh, rh, -rh), rl, rl);
  const Real rest = add_rn(fma_rn(-0.5, square.error, cross), tail);      // rounded twice
  const auto series = fast_two_sum(rh, mul_rn(-0.5, square.value));       // exact
  const Real k = to_real(a.exponent);                                     // exact
  const auto table = two_sum(mul_rn(k, kLn2High), Real(t.high));          // exact
  const Real table_low = add_rn(table.error, fma_rn(k, kLn2Low, t.low));  // rounded twice
  const auto sum = two_sum(table.value, series.value);                    // exact
  const Real low = add_rn(add_rn(sum.error, table_low), add_rn(series.error, rest));  // rounded
  return fast_two_sum(sum.value, low);                                                // exact
}

// Precondition: x is positive and finite.
KORVEX_INLINE ValueAndError log_pair(double x) { return log_pair(log_argument(x)); }

// log(1 + z) for |z| < 2^-40, until the terms vanish.
template <int W>
KORVEX_COLD SignedFixed<W> fixed_log1p(const SignedFixed<W>& z) {
  SignedFixed<W> sum = z;
  Fixed<W> power = z.magnitude;
  for (std::uint32_t n = 2;; ++n) {
    power = fixed_product(power, z.magnitude);
    const Fixed<W> term = power / n;
    if (is_zero(term)) {
      return sum;
    }
    const bool is_negative = n % 2 == 0 || z.is_negative;  // -z^2/2, +z^3/3 with the sign of z
    sum = sum + SignedFixed<W>{term, is_negative};
  }
}

// log(x) = y + log1p(x exp(-y) - 1), for the double y that is nearly log(x).
KORVEX_COLD inline double accurate_log(double x, double y) {
  constexpr int kWords = 5;
  const FixedExp<kWords> e = fixed_exp(fixed_magnitude<kWords>(y), !is_negative(y));
  // significand(x) exp(-y) 2^..., which is 1 but for z
  const int exponent = e.exponent + shift(x) + kUnitExponent;
  // significand(x) < 2^53, so the product fits its integer word; exponent is about minus its length
  const Fixed<kWords> product = shifted_down<kWords>(e.fixed * significand(x), -exponent);
  const SignedFixed<kWords> z = signed_difference(product, fixed_from<kWords>(1, 0));
  const SignedFixed<kWords> start{fixed_magnitude<kWords>(y), is_negative(y)};
  const SignedFixed<kWords> sum = start + fixed_log1p(z);
  const double value = rounded(sum.magnitude, 0, kFixedExpUncertainBits + 2).value;
  return sum.is_negative ? -value : value;
}

// Beside 1 the error is small relative to the logarithm, elsewhere it is smaller absolutely.
constexpr double kLogError = 0x1p-66;          // proved: 2^-67.5
constexpr double kLogAbsoluteError = 0x1p-74;  // proved: 2^-75.5

template <class Real>
KORVEX_INLINE RoundedOf<Real> round_log(const ValueAndErrorOf<Real>& y) {
  const Real error = lesser(mul_rn(absolute(y.value), kLogError), kLogAbsoluteError);
  return rounding_test(y.value, y.error, error);
}

// RN(log(x)) for every x.
KORVEX_INLINE double logarithm(double x) {
  if (is_nan(x)) {
    return canonical_nan();
  }
  if (x == 0.0) {
    return -infinity();
  }
  if (is_negative(x)) {
    return canonical_nan();
  }
  if (!is_finite(x)) {
    return x;
  }
  if (x == 1.0) {
    return 0.0;
  }
  const Rounded fast = round_log(log_pair(x));
  return fast.is_decided ? fast.value : accurate_log(x, fast.value);
}

}  // namespace korvex::arithmetic
