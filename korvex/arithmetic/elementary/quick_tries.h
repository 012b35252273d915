// SPDX-License-Identifier: Apache-2.0
// First tries of exp, log and sigmoid for several lanes: fewer steps than the double-double phases
// of the same functions, and an error that leaves one result in some hundred undecided.
//
// Every sum here ends as high + low with |low| up to 2^-11 of high; the rounding test adds low to
// high itself. Where no fused multiply-add is at hand, the steps marked "either" round twice; the
// bounds hold for both.
#pragma once

#include "korvex/arithmetic/elementary/exponential.h"
#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"

namespace korvex::arithmetic {

// a b + c, rounded once or twice.
template <class Real>
KORVEX_INLINE Real multiply_add(Real a, Real b, Real c) {
  if constexpr (kFmaIsFast) {
    return fma_rn(a, b, c);
  } else {
    return add_rn(mul_rn(a, b), c);
  }
}

// 2^(j/16) is entry 4 j of the table of exp.
KORVEX_INLINE const PowerEntry& sixteenth_power(std::uint64_t j) {
  return kPowerTable[4 * (j & 15)];
}

// exp(x) / 2^k as high + low; k, modulo 2^12, times 2^52.
template <class Real, class Bits>
struct QuickExp {
  Real high;
  Real low;
  Bits exponent;
};

// x = (16 k + j) log(2)/16 + r, |r| <= 0.02167. Precondition: |x| < 746. Error of high + low below
// 2^-61.3.
template <class Real>
KORVEX_INLINE auto quick_exp(Real x) {
  constexpr double kRoundToInt = 0x1.8p+52;
  const Real shifted = multiply_add(x, Real(kExpEntriesPerLn2 / 4), Real(kRoundToInt));  // either
  const Real count = sub_rn(shifted, kRoundToInt);  // exact: an integer below 2^15
  const auto n = to_bits(shifted);                  // its last bits are those of that integer
  const Real first =
      multiply_add(-count, Real(4 * kExpStepHigh), x);  // exact, also if rounded twice
  const Real r = multiply_add(-count, Real(4 * kExpStepLow), first);
  // The difference is exact but for 2^-82, where first is the smaller; the product is off by 2^-83.
  const Real r_low = multiply_add(-count, Real(4 * kExpStepLow), sub_rn(first, r));
  // 1/2 + r/6 + ... + r^6/40320; the first term left out is below 2^-68.
  Real tail = multiply_add(r, Real(0x1.a01a01a01a01ap-16), Real(0x1.a01a01a01a01ap-13));
  tail = multiply_add(r, tail, Real(0x1.6c16c16c16c17p-10));
  tail = multiply_add(r, tail, Real(0x1.1111111111111p-7));
  tail = multiply_add(r, tail, Real(0x1.5555555555555p-5));
  tail = multiply_add(r, tail, Real(0x1.5555555555555p-3));
  tail = multiply_add(r, tail, Real(0.5));
  const Real rest = multiply_add(mul_rn(r, r), tail, r_low);  // exp(r) - 1 - r
  const auto& t = sixteenth_power(n);
  const Real head = t.high;
  const Real growth = mul_rn(head, r);
  const Real cross =
      add_rn(multiply_add(Real(t.low), r, Real(t.low)), product_error(head, r, growth));
  const auto sum = fast_two_sum(head, growth);  // exact
  const Real low = add_rn(multiply_add(head, rest, cross), sum.error);
  return QuickExp<Real, decltype(to_bits(x))>{sum.value, low, (n >> 4) << kFractionBits};
}

constexpr double kQuickExpError = 0x1p-61;  // proved: 2^-61.3

// Undecided where the result may not be normal, for NaN, and where the rounding test fails.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_exponential(Real x) {
  const auto e = quick_exp(x);  // of any bits where x is not usual
  const auto sum = rounding_test(e.high, e.low, Real(kQuickExpError));
  const auto is_usual = absolute(x) < 708.0;
  return {from_bits(to_bits(sum.value) + e.exponent), both(is_usual, sum.is_decided)};
}

KORVEX_INLINE const LogEntry& quick_log_entry(std::uint64_t index) { return kLogTable[index]; }

// x = m 2^k as of normal_log_argument(), by integers of 64 bits. Error of value + error below
// 2^-59.9 of the logarithm, and below 2^-67.2. Precondition: x is positive and normal.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> quick_log(Real x) {
  const auto bits = to_bits(x);
  constexpr int kEntryPlace = kFractionBits - 8;
  // From entry kLogHalfFrom on, this carries over to the exponent.
  constexpr auto kCarry = static_cast<std::uint64_t>(kLogEntries - kLogHalfFrom) << kEntryPlace;
  constexpr auto kOne = static_cast<std::uint64_t>(kExponentBias) << kFractionBits;
  const auto field = (bits + kCarry) >> kFractionBits;
  const Real m = from_bits(bits - (field << kFractionBits) + kOne);
  const Real biased = from_bits(field | to_bits(0x1p+52));
  const Real k = sub_rn(biased, 0x1p+52 + kExponentBias);  // exact
  const auto& t = quick_log_entry((bits >> kEntryPlace) & std::uint64_t{kLogEntries - 1});
  const Real product = mul_rn(m, Real(t.reciprocal));
  const Real rl = product_error(m, Real(t.reciprocal), product);
  const Real rh = sub_rn(product, 1.0);  // exact (Sterbenz)
  // -1/2 + r/3 - ... ; the first term left out is below 2^-66 |r|.
  Real tail = multiply_add(rh, Real(-0x1p-3), Real(0x1.2492492492492p-3));  // r^8/8, r^7/7
  tail = multiply_add(rh, tail, Real(-0x1.5555555555555p-3));               // r^6/6
  tail = multiply_add(rh, tail, Real(0x1.999999999999ap-3));                // r^5/5
  tail = multiply_add(rh, tail, Real(-0x1p-2));                             // r^4/4
  tail = multiply_add(rh, tail, Real(0x1.5555555555555p-2));                // r^3/3
  tail = multiply_add(rh, tail, Real(-0.5));
  const Real cross = multiply_add(-rh, rl, rl);  // rl / (1 + r), cut
  const Real rest = multiply_add(mul_rn(rh, rh), tail, cross);
  const auto table = fast_two_sum(mul_rn(k, kLn2High), Real(t.high));  // exact
  const auto sum = fast_two_sum(table.value, rh);                      // exact
  const Real small = add_rn(table.error, multiply_add(k, Real(kLn2Low), Real(t.low)));
  return {sum.value, add_rn(add_rn(sum.error, small), rest)};
}

constexpr double kQuickLogError = 0x1.2p-59;          // proved: 2^-59.1
constexpr double kQuickLogAbsoluteError = 0x1.2p-67;  // proved: 2^-67.1

// Undecided for what is not a positive normal number, and where the rounding test fails.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_logarithm(Real x) {
  const auto is_usual = both(x >= 0x1p-1022, x <= kLargest);
  const auto y = quick_log(x);
  const Real error = lesser(mul_rn(absolute(y.value), kQuickLogError), kQuickLogAbsoluteError);
  const auto sum = rounding_test(y.value, y.error, error);
  return {sum.value, both(is_usual, sum.is_decided)};
}

// ---- sigmoid ----

// n - q d, for q that is n / d but for a few roundings: off by 2^-104 of n at most.
template <class Real>
KORVEX_INLINE Real quotient_rest(Real n, Real q, Real d) {
  if constexpr (kFmaIsFast) {
    return fma_rn(-q, d, n);
  } else {
    const Real product = mul_rn(q, d);
    return sub_rn(sub_rn(n, product), product_error(q, d, product));
  }
}

// sigmoid(x) as (value + error) * unit. Precondition: |x| < 746. Relative error below 2^-61.2.
template <class Real>
struct QuickSigmoid {
  ValueAndErrorOf<Real> ratio;
  Real unit;
};

template <class Real>
KORVEX_INLINE QuickSigmoid<Real> quick_sigmoid_pair(Real x) {
  const auto is_positive = x > 0.0;
  const auto e = quick_exp(-absolute(x));
  const auto power = fast_two_sum(e.high, e.low);                        // exact
  const Real scale = from_bits(e.exponent + to_bits(1.0));               // 2^k
  const auto sum = fast_two_sum(Real(1.0), mul_rn(power.value, scale));  // exact
  const Real low = multiply_add(power.error, scale, sum.error);          // either
  const Real n = selected(is_positive, Real(1.0), power.value);
  const Real n_low = selected(is_positive, Real(0.0), power.error);
  const Real inverse = div_rn(Real(1.0), sum.value);
  const Real q = mul_rn(n, inverse);
  const Real rest = add_rn(quotient_rest(n, q, sum.value), n_low);
  const Real q_low = mul_rn(multiply_add(-q, low, rest), inverse);
  return {{q, q_low}, selected(is_positive, Real(1.0), scale)};
}

constexpr double kQuickSigmoidError = 0x1.1p-61;  // proved: 2^-61.2

// Undecided where the result may not be normal, for NaN, and where the rounding test fails. At
// kSigmoidOne it is 1 already.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_sigmoid(Real x) {
  const auto s = quick_sigmoid_pair(lesser(x, Real(kSigmoidOne)));
  const Real error = mul_rn(s.ratio.value, kQuickSigmoidError);
  const auto sum = rounding_test(s.ratio.value, s.ratio.error, error);
  return {mul_rn(sum.value, s.unit), both(x > -708.0, sum.is_decided)};  // exact
}

}  // namespace korvex::arithmetic
