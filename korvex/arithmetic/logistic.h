// SPDX-License-Identifier: Apache-2.0
// sigmoid and tanh, correctly rounded, out of the two phases of exp. The accurate phase widens its
// fixed point until the rounding test passes (Ziv 1991), since nobody knows the hardest cases.
#pragma once

#include "exponential.h"

namespace korvex::arithmetic {

constexpr int kQuotientUncertainBits = kFixedExpUncertainBits + 4;

// (a.value + a.error) / (b.value + b.error), relative error below 2^-100 of its own.
KORVEX_INLINE ValueAndError pair_quotient(const ValueAndError& a, const ValueAndError& b) {
  const double q = div_rn(a.value, b.value);
  const double rest = fma_rn(-q, b.value, a.value);  // exact
  const double corrected = add_rn(rest, fma_rn(-q, b.error, a.error));
  return fast_two_sum(q, div_rn(corrected, b.value));
}

// 1 + e, for a scaled pair at most 2.
KORVEX_INLINE ValueAndError one_plus(const ScaledPair& e) {
  if (e.exponent < -120) return {1.0, 0.0};  // below 2^-118
  const ValueAndError sum = fast_two_sum(1.0, scaled(e.high, e.exponent));
  return fast_two_sum(sum.value, add_rn(sum.error, scaled(e.low, e.exponent)));
}

// ---- sigmoid ----

// exp(-|x|) = E: 1 / (1 + E) for x > 0, E / (1 + E) for x < 0.
template <int W>
KORVEX_COLD Rounded accurate_sigmoid(double x) {
  const FixedExp<W> e = fixed_exp(fixed_magnitude<W>(x), true);
  const Fixed<W> one = fixed_from<W>(1, 0);
  const Fixed<W> denominator = one + shifted_down(e.fixed, -e.exponent);
  const bool positive = !is_negative(x);
  const Fixed<W> value = quotient(positive ? one : e.fixed, denominator);
  return rounded(value, positive ? 0 : e.exponent, kQuotientUncertainBits);
}

KORVEX_COLD inline double widened_sigmoid(double x) {
  Rounded result = accurate_sigmoid<5>(x);
  if (!result.decided) result = accurate_sigmoid<9>(x);
  if (!result.decided) result = accurate_sigmoid<17>(x);
  return result.value;
}

constexpr double kSigmoidUnderflow = kExpUnderflow;
constexpr double kSigmoidOne = 0x1.3p+5;   // 38: exp(-38) < 2^-54
constexpr double kSigmoidError = 0x1p-69;  // proved: 2^-71

// RN(1 / (1 + exp(-x))) for every x.
KORVEX_INLINE double sigmoid(double x) {
  if (is_nan(x)) return canonical_nan();
  if (x > kSigmoidOne) return 1.0;
  if (x < kSigmoidUnderflow) return 0.0;
  const double magnitude = x < 0 ? -x : x;
  if (magnitude < 0x1p-53) return 0.5;
  const ScaledPair e = exp_pair(-magnitude);
  const ValueAndError denominator = one_plus(e);
  const bool positive = x > 0;
  const ValueAndError numerator = positive ? ValueAndError{1.0, 0.0} : ValueAndError{e.high, e.low};
  const ValueAndError ratio = pair_quotient(numerator, denominator);
  const Rounded fast =
      round_pair({ratio.value, ratio.error, positive ? 0 : e.exponent}, kSigmoidError);
  return fast.decided ? fast.value : widened_sigmoid(x);
}

// ---- tanh ----

// (1 - E) / (1 + E), E = exp(-2 x), for x > 0.
template <int W>
KORVEX_COLD Rounded accurate_tanh(double x) {
  const FixedExp<W> e = fixed_exp(fixed_magnitude<W>(mul_rn(2.0, x)), true);
  const Fixed<W> one = fixed_from<W>(1, 0);
  const Fixed<W> power = shifted_down(e.fixed, -e.exponent);
  return rounded(quotient(one - power, one + power), 0, kQuotientUncertainBits);
}

KORVEX_COLD inline double widened_tanh(double x) {
  Rounded result = accurate_tanh<5>(x);
  if (!result.decided) result = accurate_tanh<9>(x);
  if (!result.decided) result = accurate_tanh<17>(x);
  return result.value;
}

// expm1(y) for 0 < y < 40 as a pair; relative error below 2^-65, and below 2^-72 from y = 1 on.
KORVEX_INLINE ValueAndError expm1_pair(double y) {
  const ReducedExp e = reduced_exp(y);
  const PowerEntry& t = kPowerTable[e.table_index];
  const ValueAndError product = two_product(t.high, e.high);
  const double cross = fma_rn(t.high, e.low, fma_rn(t.low, e.high, product.error));
  const double minus_one = -power_of_two(-e.exponent);  // in the scale of the table
  const ValueAndError head = two_sum(t.high, minus_one);
  const ValueAndError sum = two_sum(head.value, product.value);
  const double low = add_rn(add_rn(head.error, sum.error), add_rn(t.low, cross));
  const ValueAndError pair = fast_two_sum(sum.value, low);
  return {scaled(pair.value, e.exponent), scaled(pair.error, e.exponent)};
}

constexpr double kTanhOne = 0x1.31p+4;       // 19.0625: 2 exp(-38.125) < 2^-54
constexpr double kTanhSmallError = 0x1p-64;  // proved: 2^-65
constexpr double kTanhError = 0x1p-69;       // proved: 2^-71

KORVEX_INLINE double tanh_of_magnitude(double x) {
  if (x > kTanhOne) return 1.0;
  if (x < 0x1p-27) return x;  // x - x^3/3 lies within half a gap of x
  const ValueAndError e = expm1_pair(mul_rn(2.0, x));
  const ValueAndError sum = two_sum(e.value, 2.0);
  const ValueAndError denominator = fast_two_sum(sum.value, add_rn(sum.error, e.error));
  const ValueAndError ratio = pair_quotient(e, denominator);
  const double error = mul_rn(ratio.value, x < 0.5 ? kTanhSmallError : kTanhError);
  const double lower = add_rn(ratio.value, sub_rn(ratio.error, error));
  const double upper = add_rn(ratio.value, add_rn(ratio.error, error));
  return lower == upper ? upper : widened_tanh(x);
}

// RN(tanh(x)) for every x.
KORVEX_INLINE double hyperbolic_tangent(double x) {
  if (is_nan(x)) return canonical_nan();
  return is_negative(x) ? -tanh_of_magnitude(-x) : tanh_of_magnitude(x);
}

}  // namespace korvex::arithmetic
