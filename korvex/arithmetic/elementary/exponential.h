// SPDX-License-Identifier: Apache-2.0
// exp, correctly rounded: a double-double phase with a table, a rounding test, and for the few
// inputs that fail it a Taylor series in fixed point of 256 bits (Ziv 1991).
//
// exp(x) = 2^k * 2^(j/64) * exp(r), r = x - (64 k + j) log(2)/64, |r| <= 0.00542.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/bignum/fixed.h"
#include "korvex/arithmetic/elementary/elementary_tables.h"

namespace korvex::arithmetic {

// (high + low) * 2^exponent with high + low in [1, 2] or a little outside.
template <class Real>
struct ScaledPairOf {
  Real high;
  Real low;
  typename Companions<Real>::Integer exponent;
};
using ScaledPair = ScaledPairOf<double>;

// exp(r) - 1 as high + low, for the reduced argument; |r| <= 0.00542.
template <class Real>
struct ReducedExp {
  Real high;
  Real low;
  typename Companions<Real>::Integer table_index;  // j
  typename Companions<Real>::Integer exponent;     // k
};

KORVEX_INLINE const PowerEntry& power_entry(int j) { return kPowerTable[j]; }

// Precondition: |x| < 746. Error of high + low below 2^-74, and below 2^-67.5 of their sum where
// k = j = 0.
template <class Real>
KORVEX_INLINE ReducedExp<Real> reduced_exp(Real x) {
  constexpr double kRoundToInt = 0x1.8p+52;
  const Real shifted = add_rn(mul_rn(x, kExpEntriesPerLn2), kRoundToInt);  // rounded to an integer
  const Real count = sub_rn(shifted, kRoundToInt);  // exact: that integer, below 2^17
  const auto n = to_integer(count);
  const Real first = sub_rn(x, mul_rn(count, kExpStepHigh));  // exact, twice
  const auto second = two_product(count, Real(kExpStepLow));  // exact
  const auto r = two_sum(first, -second.value);               // exact
  const Real r_low = sub_rn(r.error, second.error);           // off by 2^-113
  const Real rh = r.value;
  // r^3 (1/6 + r/24 + r^2/120 + r^3/720 + r^4/5040 + r^5/40320), each step rounded; the first term
  // left out is below 2^-86.
  Real tail = fma_rn(rh, 0x1.a01a01a01a01ap-16, 0x1.a01a01a01a01ap-13);
  tail = fma_rn(rh, tail, 0x1.6c16c16c16c17p-10);
  tail = fma_rn(rh, tail, 0x1.1111111111111p-7);
  tail = fma_rn(rh, tail, 0x1.5555555555555p-5);
  tail = fma_rn(rh, tail, 0x1.5555555555555p-3);
  const auto square = two_product(rh, rh);         // exact
  const Real cube = mul_rn(square.value, rh);      // off by 2^-52 of itself
  const Real low_part = fma_rn(r_low, rh, r_low);  // r_low (1 + r), rounded once
  const Real rest = add_rn(mul_rn(0.5, square.error), fma_rn(cube, tail, low_part));  // rounded
  const auto sum = fast_two_sum(rh, mul_rn(0.5, square.value));                       // exact
  return {sum.value, add_rn(sum.error, rest), n & (kExpEntries - 1), n >> 6};
}

// 2^(j/64) exp(r) as head + growth + low, for the reduced argument.
template <class Real>
struct TablePower {
  Real head;    // of 2^(j/64)
  Real growth;  // of head * (exp(r) - 1)
  Real low;
};

template <class Real>
KORVEX_INLINE TablePower<Real> table_power(const ReducedExp<Real>& e) {
  const auto& t = power_entry(e.table_index);
  const Real head = t.high;
  const auto product = two_product(head, e.high);                                // exact
  const Real cross = fma_rn(head, e.low, fma_rn(t.low, e.high, product.error));  // rounded twice
  return {head, product.value, add_rn(t.low, cross)};
}

// Precondition: |x| < 746. Relative error below 2^-73.
template <class Real>
KORVEX_INLINE ScaledPairOf<Real> exp_pair(Real x) {
  const ReducedExp<Real> e = reduced_exp(x);
  const TablePower<Real> power = table_power(e);
  const auto sum = fast_two_sum(power.head, power.growth);  // exact
  const Real low = add_rn(sum.error, power.low);            // rounded
  const auto result = fast_two_sum(sum.value, low);         // exact
  return {result.value, result.error, e.exponent};
}

// value * 2^exponent for a value in [1/4, 4); exact where the result is normal.
template <class Real>
KORVEX_INLINE Real scaled(Real value, typename Companions<Real>::Integer exponent) {
  const auto half = exponent >> 1;
  return mul_rn(mul_rn(value, power_of_two(half)), power_of_two(exponent - half));
}

// Rounds to the grid of the subnormal numbers, 2^grid_exponent in the scale of the pair.
KORVEX_COLD inline Rounded round_to_subnormal(const ScaledPair& pair, double error,
                                              int grid_exponent) {
  if (grid_exponent < -48) {
    return {0.0, false};  // at the border to the normal numbers
  }
  const double bias = mul_rn(0x1.8p+52, power_of_two(grid_exponent));  // exact
  const ValueAndError on_grid = fast_two_sum(bias, pair.high);         // exact
  const double kept = sub_rn(on_grid.value, bias);          // exact: a multiple of the grid
  const double rest = add_rn(on_grid.error, pair.low);      // rounded
  const double half_gap = power_of_two(grid_exponent - 1);  // exact
  // 2^-40 of half a gap covers the rounding of `rest`, and those here.
  const double slack = add_rn(error, mul_rn(half_gap, 0x1p-40));
  const double distance = rest < 0 ? -rest : rest;
  return {scaled(kept, pair.exponent), distance < sub_rn(half_gap, slack)};
}

// RN(high + low) for a sum that is known but for `error`, unless a boundary lies within it. The
// claimed errors leave room for the roundings of low - error and low + error.
template <class Real>
KORVEX_INLINE RoundedOf<Real> rounding_test(Real high, Real low, Real error) {
  const Real lower = add_rn(high, sub_rn(low, error));
  const Real upper = add_rn(high, add_rn(low, error));
  return {upper, lower == upper};
}

// RN((high + low) 2^exponent), for a pair in [1/4, 4) that is known with the relative error given.
KORVEX_INLINE Rounded round_pair(const ScaledPair& pair, double relative_error) {
  const double error = mul_rn(pair.high, relative_error);
  if (pair.exponent < kMinExponent + 2) {
    return round_to_subnormal(pair, error, kUnitExponent - pair.exponent);
  }
  const double lower = add_rn(pair.high, sub_rn(pair.low, error));
  const double upper = add_rn(pair.high, add_rn(pair.low, error));
  return {scaled(upper, pair.exponent), lower == upper};
}

// exp of a number given as (-1)^negative * magnitude, as fixed * 2^exponent, fixed in [1, 2).
template <int W>
struct FixedExp {
  Fixed<W> fixed;
  int exponent;
};

// How many bits of a FixedExp may be wrong, in units: each of 8 squarings doubles an error that
// starts below 2^10 units (40 truncations of fewer than W units, and the cut of log 2).
constexpr int kFixedExpUncertainBits = 24;

// log 2, rounded down.
template <int W>
KORVEX_HD Fixed<W> fixed_ln2() {
  Fixed<W> result;
  for (int i = 0; i < W; ++i) {
    result.word[i] = kLn2Digits[kLn2Words - W + i];
  }
  return result;
}

// exp(t) by its Taylor series for t < 2^-8.5, until the terms vanish.
template <int W>
KORVEX_COLD Fixed<W> fixed_taylor(const Fixed<W>& t) {
  Fixed<W> sum = fixed_from<W>(1, 0);
  Fixed<W> term = sum;
  for (std::uint32_t n = 1; !is_zero(term); ++n) {
    term = fixed_product(term, t) / n;
    sum = sum + term;
  }
  return sum;
}

// Precondition: 0 <= magnitude < 746.
template <int W>
KORVEX_COLD FixedExp<W> fixed_exp(const Fixed<W>& magnitude, bool is_negative) {
  const Fixed<W> ln2 = fixed_ln2<W>();
  // The integer and first fraction word give k or one too few.
  const double head =
      add_rn(static_cast<double>(magnitude.word[W - 1]),                          // off by 2^-44
             mul_rn(static_cast<double>(magnitude.word[W - 2] >> 11), 0x1p-53));  // exact
  auto k = static_cast<std::uint64_t>(mul_rn(head, 0x1.71547652b82fep+0));        // RN(1 / log 2)
  if (magnitude < ln2 * k) {
    --k;
  }
  Fixed<W> r = magnitude - ln2 * k;
  if (!(r < ln2)) {
    r = r - ln2;
    ++k;
  }
  int exponent = static_cast<int>(k);
  if (is_negative) {  // -magnitude = -(k + 1) log 2 + (log 2 - r)
    r = ln2 - r;
    exponent = -exponent - 1;
  }
  Fixed<W> power = fixed_taylor(shifted_down<W>(r, 8));
  for (int i = 0; i < 8; ++i) {
    power = fixed_product(power, power);
  }
  return {power, exponent};
}

template <int W>
KORVEX_HD Fixed<W> fixed_magnitude(double x) {
  return fixed_from<W>(significand(x), kUnitExponent + shift(x));
}

KORVEX_COLD inline double accurate_exp(double x) {
  // 256 fractional bits: the nearest known case needs 113 bits past the result.
  constexpr int kWords = 5;
  const FixedExp<kWords> e = fixed_exp(fixed_magnitude<kWords>(x), is_negative(x));
  return rounded(e.fixed, e.exponent, kFixedExpUncertainBits).value;
}

constexpr double kExpOverflow = 0x1.62e42fefa39efp+9;    // RN(1024 log 2): above it, infinity
constexpr double kExpUnderflow = -0x1.74910d52d3051p+9;  // below -1075 log 2 lies nothing but 0
constexpr double kExpError = 0x1p-71;                    // proved: 2^-73

// RN(exp(x)) for every x.
KORVEX_INLINE double exponential(double x) {
  if (is_nan(x)) {
    return canonical_nan();
  }
  if (x > kExpOverflow) {
    return infinity();
  }
  if (x < kExpUnderflow) {
    return 0.0;
  }
  const double magnitude = x < 0 ? -x : x;
  if (magnitude < 0x1p-54) {
    return 1.0;
  }
  const Rounded fast = round_pair(exp_pair(x), kExpError);
  return fast.is_decided ? fast.value : accurate_exp(x);
}

}  // namespace korvex::arithmetic
