// SPDX-License-Identifier: Apache-2.0
// sigmoid and tanh, correctly rounded, out of the two phases of exp. The accurate phase widens its
// fixed point until the rounding test passes (Ziv 1991), since nobody knows the hardest cases.
#pragma once

#include "korvex/arithmetic/elementary/exponential.h"

namespace korvex::arithmetic {

constexpr int kQuotientUncertainBits = kFixedExpUncertainBits + 4;

// (a.value + a.error) / (b.value + b.error), relative error below 2^-100 of its own.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> pair_quotient(const ValueAndErrorOf<Real>& a,
                                                  const ValueAndErrorOf<Real>& b) {
  const Real q = div_rn(a.value, b.value);                            // rounded
  const Real rest = fma_rn(-q, b.value, a.value);                     // exact
  const Real corrected = add_rn(rest, fma_rn(-q, b.error, a.error));  // rounded twice
  return fast_two_sum(q, div_rn(corrected, b.value));                 // rounded once
}

// 1 + e, for a scaled pair at most 2; off by the rounding of its low part, 2^-105 of the sum.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> one_plus(const ScaledPairOf<Real>& e) {
  const auto sum = fast_two_sum(Real(1.0), scaled(e.high, e.exponent));
  return fast_two_sum(sum.value, add_rn(sum.error, scaled(e.low, e.exponent)));
}

// ---- sigmoid ----

// exp(-|x|) = E: 1 / (1 + E) for x > 0, E / (1 + E) for x < 0.
template <int W>
KORVEX_COLD Rounded accurate_sigmoid(double x) {
  const FixedExp<W> e = fixed_exp(fixed_magnitude<W>(x), true);
  const Fixed<W> one = fixed_from<W>(1, 0);
  const Fixed<W> denominator = one + shifted_down<W>(e.fixed, -e.exponent);
  const bool positive = !is_negative(x);
  const Fixed<W> value = fixed_quotient(positive ? one : e.fixed, denominator);
  return rounded(value, positive ? 0 : e.exponent, kQuotientUncertainBits);
}

KORVEX_COLD inline double widened_sigmoid(double x) {
  Rounded result = accurate_sigmoid<5>(x);
  if (!result.is_decided) {
    result = accurate_sigmoid<9>(x);
  }
  if (!result.is_decided) {
    result = accurate_sigmoid<17>(x);
  }
  return result.value;
}

constexpr double kSigmoidUnderflow = kExpUnderflow;
constexpr double kSigmoidOne = 0x1.3p+5;   // 38: exp(-38) < 2^-54
constexpr double kSigmoidError = 0x1p-69;  // proved: 2^-71

// The sigmoid of x. Precondition: |x| < 746.
template <class Real>
KORVEX_INLINE ScaledPairOf<Real> sigmoid_pair(Real x) {
  const auto e = exp_pair(-absolute(x));
  const auto is_positive = x > 0.0;
  const ValueAndErrorOf<Real> numerator{selected(is_positive, 1.0, e.high),
                                        selected(is_positive, 0.0, e.low)};
  const auto ratio = pair_quotient(numerator, one_plus(e));
  return {ratio.value, ratio.error, selected(is_positive, 0, e.exponent)};
}

// What needs no exponential, and the fast phase.
KORVEX_INLINE Rounded fast_sigmoid(double x) {
  if (is_nan(x)) {
    return {canonical_nan(), true};
  }
  if (x > kSigmoidOne) {
    return {1.0, true};
  }
  if (x < kSigmoidUnderflow) {
    return {0.0, true};
  }
  if (absolute(x) < 0x1p-53) {
    return {0.5, true};
  }
  return round_pair(sigmoid_pair(x), kSigmoidError);
}

// RN(1 / (1 + exp(-x))) for every x.
KORVEX_INLINE double sigmoid(double x) {
  const Rounded fast = fast_sigmoid(x);
  return fast.is_decided ? fast.value : widened_sigmoid(x);
}

// ---- tanh ----

// (1 - E) / (1 + E), E = exp(-2 x), for x > 0.
template <int W>
KORVEX_COLD Rounded accurate_tanh(double x) {
  const FixedExp<W> e = fixed_exp(fixed_magnitude<W>(mul_rn(2.0, x)), true);
  const Fixed<W> one = fixed_from<W>(1, 0);
  const Fixed<W> power = shifted_down<W>(e.fixed, -e.exponent);
  return rounded(fixed_quotient(one - power, one + power), 0, kQuotientUncertainBits);
}

KORVEX_COLD inline double widened_tanh(double x) {
  Rounded result = accurate_tanh<5>(x);
  if (!result.is_decided) {
    result = accurate_tanh<9>(x);
  }
  if (!result.is_decided) {
    result = accurate_tanh<17>(x);
  }
  return result.value;
}

// expm1(y) for 0 < y < 40 as a pair; relative error below 2^-65, and absolute error below 2^-72.5
// of exp(y).
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> expm1_pair(Real y) {
  const ReducedExp<Real> e = reduced_exp(y);
  const TablePower<Real> power = table_power(e);
  const Real minus_one = -power_of_two(-e.exponent);                  // in the scale of the table
  const auto head = two_sum(power.head, minus_one);                   // exact
  const auto sum = two_sum(head.value, power.growth);                 // exact
  const Real low = add_rn(add_rn(head.error, sum.error), power.low);  // rounded twice
  const auto pair = fast_two_sum(sum.value, low);                     // exact
  return {scaled(pair.value, e.exponent), scaled(pair.error, e.exponent)};
}

constexpr double kTanhOne = 0x1.31p+4;          // 19.0625: 2 exp(-38.125) < 2^-54
constexpr double kTanhLeast = 0x1p-27;          // below: x - x^3/3 lies within half a gap of x
constexpr double kTanhError = 0x1p-64;          // proved: 2^-65
constexpr double kTanhAbsoluteError = 0x1p-71;  // proved: 2^-72.5

// Precondition: kTanhLeast <= x <= kTanhOne.
template <class Real>
KORVEX_INLINE RoundedOf<Real> fast_tanh(Real x) {
  const auto e = expm1_pair(mul_rn(2.0, x));
  const auto sum = two_sum(e.value, Real(2.0));                                  // exact
  const auto denominator = fast_two_sum(sum.value, add_rn(sum.error, e.error));  // rounded once
  const auto ratio = pair_quotient(e, denominator);
  const Real error = lesser(mul_rn(ratio.value, kTanhError), kTanhAbsoluteError);
  return rounding_test(ratio.value, ratio.error, error);
}

// What needs no exponential, and the fast phase. Precondition: x >= 0.
KORVEX_INLINE Rounded tanh_of_magnitude(double x) {
  if (x > kTanhOne) {
    return {1.0, true};
  }
  if (x < kTanhLeast) {
    return {x, true};
  }
  return fast_tanh(x);
}

// RN(tanh(x)) for every x.
KORVEX_INLINE double hyperbolic_tangent(double x) {
  if (is_nan(x)) {
    return canonical_nan();
  }
  const double magnitude = absolute(x);  // once in the code, for both signs
  const Rounded fast = tanh_of_magnitude(magnitude);
  const double result = fast.is_decided ? fast.value : widened_tanh(magnitude);
  return is_negative(x) ? -result : result;
}

// The fast phase alone, for those who try it first: undecided below kTanhLeast, for NaN, and where
// the rounding test fails. At kTanhOne it is 1 already.
template <class Real>
KORVEX_INLINE RoundedOf<Real> try_tanh(Real x) {
  const Real magnitude = absolute(x);
  const auto is_usual = magnitude >= kTanhLeast;
  const auto fast = fast_tanh(selected(is_usual, lesser(magnitude, kTanhOne), 1.0));
  return {with_sign_of(x, fast.value), both(is_usual, fast.is_decided)};
}

}  // namespace korvex::arithmetic
