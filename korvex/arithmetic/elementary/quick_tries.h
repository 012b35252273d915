// SPDX-License-Identifier: Apache-2.0
// First tries of exp, log, sigmoid and tanh for several lanes: fewer steps than the double-double
// phases of the same functions, and an error that leaves few results undecided, of tanh beside
// 2^-7 more. Second tries of exp, log and sigmoid for arguments or results that are not usual:
// subnormal numbers, zeros, infinities, NaN.
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

KORVEX_INLINE bool either(bool a, bool b) { return a || b; }
KORVEX_INLINE double greater(double a, double b) { return a > b ? a : b; }

// The first 26 bits of x, for products without rounding where no fused multiply-add gives their
// error; x less these has 27 bits.
template <class Real>
KORVEX_INLINE Real first_bits(Real x) {
  return from_bits(to_bits(x) & ~std::uint64_t{0x7ffffff});
}

// c[0] + c[1] r + ... + c[6] r^6: pairs first, as a chain of six steps takes longer.
template <class Real>
KORVEX_INLINE Real paired_series(Real r, Real square, const double (&c)[7]) {
  const Real first = multiply_add(r, Real(c[1]), Real(c[0]));
  const Real second = multiply_add(r, Real(c[3]), Real(c[2]));
  const Real third = multiply_add(r, Real(c[5]), Real(c[4]));
  const Real last = multiply_add(square, Real(c[6]), third);
  return multiply_add(square, multiply_add(square, last, second), first);
}

// 2^(j/16) is entry 4 j of the table of exp.
KORVEX_INLINE const PowerEntry& sixteenth_power(std::uint64_t j) {
  return kPowerTable[4 * (j & 15)];
}

// 1/2!, 1/3!, ... 1/8!
constexpr double kExpSeries[7] = {0x1p-1,
                                  0x1.5555555555555p-3,
                                  0x1.5555555555555p-5,
                                  0x1.1111111111111p-7,
                                  0x1.6c16c16c16c17p-10,
                                  0x1.a01a01a01a01ap-13,
                                  0x1.a01a01a01a01ap-16};

// (head + head_low) (1 + r + rest) - head as growth + low.
template <class Real>
struct QuickGrowth {
  Real growth;
  Real low;
};

template <class Real>
KORVEX_INLINE QuickGrowth<Real> table_growth(Real head, Real head_low, Real r, Real rest) {
  const Real table = multiply_add(head_low, r, head_low);
  if constexpr (kFmaIsFast) {
    const Real growth = mul_rn(head, r);
    const Real cross = add_rn(table, fma_rn(head, r, -growth));
    return {growth, fma_rn(head, rest, cross)};
  } else {
    const Real first = first_bits(r);
    const Real first_head = first_bits(head);
    const Real others = mul_rn(sub_rn(head, first_head), first);  // exact
    const Real more = add_rn(rest, sub_rn(r, first));
    return {mul_rn(first_head, first),  // exact
            add_rn(mul_rn(head, more), add_rn(table, others))};
  }
}

// exp(x) / 2^k as high + low; k, modulo 2^12, times 2^52.
template <class Real>
struct QuickExp {
  Real high;
  Real low;
  decltype(to_bits(Real())) exponent;
};

// x = (16 k + j) log(2)/16 + r, |r| <= 0.02167. Precondition: |x| < 746. Error of high + low below
// 2^-61.
template <class Real>
KORVEX_INLINE QuickExp<Real> quick_exp(Real x) {
  constexpr double kRoundToInt = 0x1.8p+52;
  const Real shifted = multiply_add(x, Real(kExpEntriesPerLn2 / 4), Real(kRoundToInt));  // either
  const Real count = sub_rn(shifted, kRoundToInt);  // exact: an integer below 2^15
  const auto n = to_bits(shifted);                  // its last bits are those of that integer
  const Real first =
      multiply_add(count, Real(-4 * kExpStepHigh), x);  // exact, also if rounded twice
  const Real r = multiply_add(count, Real(-4 * kExpStepLow), first);
  // The difference is exact but for 2^-82, where first is the smaller; the product is off by 2^-83.
  const Real r_low = multiply_add(count, Real(-4 * kExpStepLow), sub_rn(first, r));
  // 1/2 + r/6 + ... + r^6/40320; the first term left out is below 2^-68.
  const Real square = mul_rn(r, r);
  const Real tail = paired_series(r, square, kExpSeries);
  const Real rest = multiply_add(square, tail, r_low);  // exp(r) - 1 - r
  const auto& t = sixteenth_power(n);
  const auto product = table_growth(Real(t.high), Real(t.low), r, rest);
  const auto sum = fast_two_sum(Real(t.high), product.growth);  // exact
  return {sum.value, add_rn(product.low, sum.error), (n >> 4) << kFractionBits};
}

constexpr double kQuickExpError = 0x1.1p-61;  // proved: 2^-61

// Undecided where the result may not be normal, for NaN, and where the rounding test fails.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_exponential(Real x) {
  const auto e = quick_exp(x);  // of any bits where x is not usual
  const auto sum = rounding_test(e.high, e.low, Real(kQuickExpError));
  const auto is_usual = both(x > -708.0, x <= kExpOverflow);
  return {from_bits(to_bits(sum.value) + e.exponent), both(is_usual, sum.is_decided)};
}

template <class Real>
KORVEX_INLINE QuickExp<Real> any_power(Real x) {
  return quick_exp(greater(lesser(x, Real(710.0)), Real(-746.0)));
}

// The second try, of every x: subnormal results are rounded on their own grid.
template <class Real>
KORVEX_INLINE RoundedOf<Real> any_exponential_of(Real x, const QuickExp<Real>& e) {
  const auto power = fast_two_sum(e.high, e.low);  // exact
  const auto sum = rounding_test(power.value, power.error, Real(kQuickExpError));
  const Real normal = from_bits(to_bits(sum.value) + e.exponent);
  // The least normal number over 2^k: below it the results lie 2^-52 of it apart, and so do the
  // sums with it, whose bits then count them.
  const Real least = from_bits(to_bits(Real(0x1p-1022)) - e.exponent);
  const Real border = selected(x < -700.0, least, Real(0.0));
  const auto on_grid = fast_two_sum(least, power.value);  // exact below the border
  const Real rest = absolute(add_rn(on_grid.error, power.error));
  // Half a gap less its 2^7th part, for the error of the power and the rounding of the rest.
  const auto is_off_middle = rest < mul_rn(least, 0x1.fcp-54);
  const Real counted = from_bits(to_bits(on_grid.value) - to_bits(least));
  const auto is_subnormal = power.value < border;
  const auto is_too_large = x > kExpOverflow;
  const auto is_no_number = x != x;
  const Real value = selected(is_subnormal, counted, normal);
  const auto is_decided =
      either(both(is_subnormal, is_off_middle), both(power.value >= border, sum.is_decided));
  const Real result = selected(is_too_large, Real(infinity()), value);
  return {selected(is_no_number, Real(canonical_nan()), result),
          either(is_decided, either(is_too_large, is_no_number))};
}

template <class Real>
KORVEX_INLINE RoundedOf<Real> any_exponential(Real x) {
  return any_exponential_of(x, any_power(x));
}

// By its place among entries of 32 bytes, as lanes have them.
constexpr int kLogEntryBytes = 32;
KORVEX_INLINE const LogEntry& quick_log_entry(std::uint64_t place) {
  return kLogTable[place / kLogEntryBytes];
}

// m c - product for c of 10 bits; exact.
template <class Real>
KORVEX_INLINE Real short_product_error(Real m, Real c, Real product) {
  if constexpr (kFmaIsFast) {
    return fma_rn(m, c, -product);
  } else {
    const Real first = first_bits(m);
    return add_rn(sub_rn(mul_rn(first, c), product), mul_rn(sub_rn(m, first), c));
  }
}

// 1/2, 1/3, ... 1/8 with alternating signs
constexpr double kLogSeries[7] = {-0x1p-1,
                                  0x1.5555555555555p-2,
                                  -0x1p-2,
                                  0x1.999999999999ap-3,
                                  -0x1.5555555555555p-3,
                                  0x1.2492492492492p-3,
                                  -0x1p-3};

constexpr double kLogBias = 0x1p+52 + kExponentBias;

// x = m 2^k as of normal_log_argument(), by integers of 64 bits: m times the reciprocal of its
// entry is 1 + r + r_low, and high + low the logarithm of the entry.
template <class Real>
struct QuickLogArgument {
  Real r;
  Real r_low;
  Real k;
  Real high;
  Real low;
};

// Of x 2^(kLogBias - bias). Precondition: x is positive and normal.
template <class Real>
KORVEX_INLINE QuickLogArgument<Real> quick_log_argument(Real x, Real bias = Real(kLogBias)) {
  const auto bits = to_bits(x);
  constexpr int kEntryPlace = kFractionBits - 8;
  // From entry kLogHalfFrom on, this carries over to the exponent.
  constexpr auto kCarry = static_cast<std::uint64_t>(kLogEntries - kLogHalfFrom) << kEntryPlace;
  constexpr auto kOne = static_cast<std::uint64_t>(kExponentBias) << kFractionBits;
  const auto field = (bits + kCarry) >> kFractionBits;
  const Real m = from_bits(bits - (field << kFractionBits) + kOne);
  const Real biased = from_bits(field | to_bits(0x1p+52));
  const Real k = sub_rn(biased, bias);  // exact
  constexpr std::uint64_t kPlaces = std::uint64_t{kLogEntries - 1} * kLogEntryBytes;
  const auto& t = quick_log_entry((bits >> (kEntryPlace - 5)) & kPlaces);
  const Real product = mul_rn(m, Real(t.reciprocal));
  const Real r_low = short_product_error(m, Real(t.reciprocal), product);
  const Real r = sub_rn(product, 1.0);  // exact (Sterbenz)
  return {r, r_low, k, Real(t.high), Real(t.low)};
}

// Error of value + error below 2^-58.8 of the logarithm, and below 2^-66.9.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> quick_log(const QuickLogArgument<Real>& x) {
  // -1/2 + r/3 - ... ; the first term left out is below 2^-66 |r|.
  const Real square = mul_rn(x.r, x.r);
  const Real tail = paired_series(x.r, square, kLogSeries);
  const Real cross = multiply_add(-x.r, x.r_low, x.r_low);  // r_low / (1 + r), cut
  const Real rest = multiply_add(square, tail, cross);
  const auto table = fast_two_sum(mul_rn(x.k, kLn2High), x.high);  // exact
  const auto sum = fast_two_sum(table.value, x.r);                 // exact
  const Real small = add_rn(table.error, multiply_add(x.k, Real(kLn2Low), x.low));
  return {sum.value, add_rn(add_rn(sum.error, small), rest)};
}

constexpr double kQuickLogError = 0x1.4p-59;          // proved: 2^-58.8
constexpr double kQuickLogAbsoluteError = 0x1.4p-67;  // proved: 2^-66.9

template <class Real>
KORVEX_INLINE RoundedOf<Real> round_quick_log(const ValueAndErrorOf<Real>& y) {
  const Real error = lesser(mul_rn(absolute(y.value), kQuickLogError), kQuickLogAbsoluteError);
  return rounding_test(y.value, y.error, error);
}

// Undecided for what is not a positive normal number, and where the rounding test fails.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_logarithm_of(Real x, const QuickLogArgument<Real>& argument) {
  const auto is_usual = both(x >= 0x1p-1022, x <= kLargest);
  const auto sum = round_quick_log(quick_log(argument));
  return {sum.value, both(is_usual, sum.is_decided)};
}

template <class Real>
KORVEX_INLINE QuickLogArgument<Real> usual_log_argument(Real x) {
  return quick_log_argument(x);
}

template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_logarithm(Real x) {
  return quick_logarithm_of(x, usual_log_argument(x));
}

// The second try, of every x.
template <class Real>
KORVEX_INLINE RoundedOf<Real> any_logarithm(Real x) {
  const auto is_small = x < 0x1p-1022;
  // By their bits, as a processor may take long for subnormal operands.
  const Real whole = sub_rn(from_bits(to_bits(x) | to_bits(0x1p+52)), 0x1p+52);  // x 2^1074
  const auto sum = round_quick_log(quick_log(quick_log_argument(
      selected(is_small, whole, x), selected(is_small, Real(kLogBias + 1074), Real(kLogBias)))));
  const auto is_number = both(x > 0.0, x <= kLargest);
  const Real endless = selected(x == 0.0, Real(-infinity()), x);  // of 0 and infinity
  const Real unusual = selected(x >= 0.0, endless, Real(canonical_nan()));
  const auto is_unusual = either(either(x <= 0.0, x > kLargest), x != x);
  return {selected(is_number, sum.value, unusual),
          either(is_unusual, both(is_number, sum.is_decided))};
}

// log(1 + r) = r - r^2/2 + r^3/3 - ... for 0 < |r| < 2^-26, exact but for what follows r^4. Beside
// 1, where r = k 2^-52 is short, the first two terms often end on a midpoint of two doubles (for
// k = 6, 20, 28 and so on). Then the others decide, and no phase that knows less of the value can.
KORVEX_COLD inline Rounded short_logarithm(double r) {
  const double square = mul_rn(r, r);
  const double square_error = split_product_error(r, r, square);    // exact
  const ValueAndError sum = fast_two_sum(r, mul_rn(-0.5, square));  // exact
  const double cube = mul_rn(mul_rn(square, r), 0x1.5555555555555p-2);
  const double third = mul_rn(cube, sub_rn(1.0, mul_rn(0.75, r)));  // r^3/3 - r^4/4; off by 2^-50
  const double others = sub_rn(third, mul_rn(0.5, square_error));
  const double doubt = mul_rn(add_rn(absolute(third), absolute(square_error)), 0x1p-49);
  const ValueAndError low = two_sum(sum.error, others);  // exact
  const Rounded tried = rounding_test(sum.value, low.value, add_rn(absolute(low.error), doubt));
  if (tried.is_decided || absolute(low.error) <= doubt) {
    return tried;
  }
  // The sum of its first two words, the second rounded to odd: it lies on the side of all midpoints
  // on which the value lies.
  const bool is_odd = (to_bits(low.value) & 1) != 0;
  const bool is_outward = is_negative(low.value) == is_negative(low.error);
  const std::uint64_t bits = to_bits(low.value) + (is_odd ? 0 : is_outward ? 1 : ~std::uint64_t{0});
  return {add_rn(sum.value, from_bits(bits)), low.value != 0};
}

// RN(log(x)) for every x.
KORVEX_INLINE double logarithm_beside_one(double x) {
  const double r = sub_rn(x, 1.0);  // exact where x is near 1
  if (absolute(r) < 0x1p-26 && r != 0) {
    const Rounded tried = short_logarithm(r);
    if (tried.is_decided) {
      return tried.value;
    }
  }
  return logarithm(x);
}

// ---- sigmoid ----

// n / d as quotient and rest, n - quotient d; by the inverse of d.
template <class Real>
struct QuickQuotient {
  Real quotient;
  Real rest;  // off by 2^-78 of n at most
};

template <class Real>
KORVEX_INLINE QuickQuotient<Real> quick_quotient(Real n, Real d, Real inverse) {
  const Real q = mul_rn(n, inverse);
  if constexpr (kFmaIsFast) {
    return {q, fma_rn(-q, d, n)};  // exact
  } else {
    const Real first = first_bits(q);
    const Real first_d = first_bits(d);
    const Real less = sub_rn(n, mul_rn(first, first_d));              // exact
    return {first, sub_rn(less, mul_rn(first, sub_rn(d, first_d)))};  // rounded once
  }
}

// exp(-x), at kSigmoidOne for what lies above it: there the sigmoid is 1 already.
template <class Real>
KORVEX_INLINE QuickExp<Real> quick_sigmoid_power(Real x) {
  return quick_exp(-lesser(x, Real(kSigmoidOne)));
}

// sigmoid(x) = 1 / (1 + exp(-x)) as unit / (unit + power), exp(-x) = power / unit.
// Precondition: -650 <= x. Relative error of value + error below 2^-61.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> quick_sigmoid_pair(const QuickExp<Real>& e) {
  const auto power = fast_two_sum(e.high, e.low);                                        // exact
  const Real unit = from_bits(to_bits(Real(1.0)) - e.exponent);                          // 2^-k
  const auto sum = fast_two_sum(greater(power.value, unit), lesser(power.value, unit));  // exact
  const Real low = add_rn(sum.error, power.error);                                       // rounded
  const Real inverse = div_rn(Real(1.0), sum.value);
  const auto ratio = quick_quotient(unit, sum.value, inverse);
  const Real rest = multiply_add(ratio.quotient, -low, ratio.rest);
  return {ratio.quotient, mul_rn(rest, inverse)};
}

constexpr double kQuickSigmoidError = 0x1.1p-61;  // proved: 2^-61

// Undecided below -650, where the low part may be subnormal, for NaN, and where the rounding test
// fails.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_sigmoid_of(Real x, const QuickExp<Real>& power) {
  const auto y = quick_sigmoid_pair(power);
  const auto sum = rounding_test(y.value, y.error, mul_rn(y.value, kQuickSigmoidError));
  return {sum.value, both(x > -650.0, sum.is_decided)};
}

template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_sigmoid(Real x) {
  return quick_sigmoid_of(x, quick_sigmoid_power(x));
}

// The second try, of those below -600, where the sigmoid is the exponential but for 2^-865 of it,
// and of NaN.
template <class Real>
KORVEX_INLINE RoundedOf<Real> any_sigmoid_of(Real x, const QuickExp<Real>& power) {
  const auto e = any_exponential_of(x, power);
  return {e.value, both(either(x < -600.0, x != x), e.is_decided)};
}

template <class Real>
KORVEX_INLINE RoundedOf<Real> any_sigmoid(Real x) {
  return any_sigmoid_of(x, any_power(x));
}

// ---- tanh ----

constexpr double kQuickTanhOne = 20.0;  // 2 exp(-40) is far below 2^-54, as the test needs it

// exp(2 |x|), at kQuickTanhOne for what lies above it: there tanh is 1 already.
template <class Real>
KORVEX_INLINE QuickExp<Real> quick_tanh_power(Real x) {
  const Real magnitude = lesser(Real(kQuickTanhOne), absolute(x));  // NaN stays
  return quick_exp(add_rn(magnitude, magnitude));
}

// tanh(|x|) = (E - 1) / (E + 1), E = exp(2 |x|) = 2^k power. Error of value + error below 2^-62.5,
// and below 2^-49.5 of y^2 + 2^-23 y, y the result, where |x| is not below kTanhLeast.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> quick_tanh_pair(const QuickExp<Real>& e) {
  const auto power = fast_two_sum(e.high, e.low);                // exact
  const Real unit = from_bits(to_bits(Real(1.0)) - e.exponent);  // 2^-k
  const auto less = fast_two_sum(power.value, -unit);            // exact
  const auto more = fast_two_sum(power.value, unit);             // exact
  const Real low = add_rn(less.error, power.error);              // rounded
  const Real inverse = div_rn(Real(1.0), more.value);
  const auto ratio = quick_quotient(less.value, more.value, inverse);
  const Real more_low = add_rn(more.error, power.error);  // rounded
  const Real rest = multiply_add(ratio.quotient, -more_low, add_rn(ratio.rest, low));
  return {ratio.quotient, mul_rn(rest, inverse)};
}

constexpr double kQuickTanhError = 0x1p-62;            // proved: 2^-62.5, absolute
constexpr double kQuickTanhRelativeError = 0x1.cp-50;  // proved: 2^-49.5, of y^2 + 2^-23 y

// x itself below kTanhLeast. Undecided for NaN, and where the rounding test fails.
template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_tanh_of(Real x, const QuickExp<Real>& power) {
  const Real magnitude = absolute(x);
  const auto y = quick_tanh_pair(power);
  const Real relative =
      multiply_add(y.value, Real(kQuickTanhRelativeError), Real(0x1p-23 * kQuickTanhRelativeError));
  const Real error = lesser(mul_rn(y.value, relative), kQuickTanhError);
  const auto sum = rounding_test(y.value, y.error, error);
  const auto is_least = magnitude < kTanhLeast;
  return {with_sign_of(x, selected(is_least, magnitude, sum.value)),
          either(is_least, sum.is_decided)};
}

template <class Real>
KORVEX_INLINE RoundedOf<Real> quick_tanh(Real x) {
  return quick_tanh_of(x, quick_tanh_power(x));
}

}  // namespace korvex::arithmetic
