// SPDX-License-Identifier: Apache-2.0
// log(exp(x[0]) + exp(x[1]) + ...), correctly rounded save where even the widest try cannot decide.
//
// Phases: the largest element m; the sum S of exp(x[i] - m), x[i] - m exactly as two doubles, each
// term cut to a fixed grid, so that the sum is an integer and the order of the elements does not
// show; m + log(S) as a pair with a bound on its error, and a rounding test. Where the test fails,
// the same with 256 bits after the point, then with 1472: those hold the smallest result, a single
// term below 2^-1074 beside m = 0. What even they cannot decide is rounded.
//
// The phases over the elements are given to a runner, which has
//   Part& over<Part>(work)   Part(), with work(x, count, part) called on pieces of the elements,
//                            and part.add(other) to join them.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/fixed.h"
#include "korvex/arithmetic/elementary/exponential.h"
#include "korvex/arithmetic/elementary/logarithm.h"

namespace korvex::arithmetic {

// The largest element and what else decides without any exponential.
struct LargestElement {
  double value = -from_bits(kInfinityBits);
  std::int64_t finite_count = 0;
  bool has_nan = false;

  KORVEX_HD void add_range(const double* x, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) {
      value = x[i] > value ? x[i] : value;
      finite_count += is_finite(x[i]) ? 1 : 0;
      has_nan = has_nan || is_nan(x[i]);
    }
  }
  KORVEX_COLD void add(const LargestElement& other) {
    value = other.value > value ? other.value : value;
    finite_count += other.finite_count;
    has_nan = has_nan || other.has_nan;
  }
};

// Below it a term counts for nothing in the first try: it is less than one unit.
constexpr double kLeastFastDifference = -90.0;  // exp(-90) < 2^-129

// A sum of terms in (0, 1], and up to 2^63 of them.
struct ExpSum {
  Natural<3> sum{};  // in units of 2^-128

  // Adds exp(x - largest), off by less than 2^-72.9 of itself and 3 units.
  KORVEX_INLINE void add_term(double x, double largest) {
    const ValueAndError d = two_sum(x, -largest);  // exact, unless it overflows to -infinity
    if (!(d.value >= kLeastFastDifference)) {
      return;
    }
    const ScaledPair p = exp_pair(d.value);             // off by 2^-73 of itself
    const double low = fma_rn(p.high, d.error, p.low);  // exp(error) = 1 + error to 2^-95
    add_scaled(p.high, p.exponent);
    add_scaled(low, p.exponent);
  }

  KORVEX_COLD void add(const ExpSum& other) { arithmetic::add(sum, other.sum, sum); }

  // The sum as high + low with high its leading 53 bits; low is off by 2^-105 of the sum.
  // Precondition: it is at least 1.
  KORVEX_COLD ValueAndError leading() const {
    const int position = highest_bit(sum) - 63;
    const std::uint64_t first = bits_from(sum, position);
    const std::uint64_t second = bits_from(sum, position - 64);
    const double unit = power_of_two(position - 128);
    const double high = mul_rn(static_cast<double>(first >> 11 << 11), unit);  // exact
    const double middle = static_cast<double>(first & 0x7ff);                  // exact
    const double last = mul_rn(static_cast<double>(second >> 11), 0x1p-53);    // cut to 53 bits
    return {high, mul_rn(add_rn(middle, last), unit)};
  }

 private:
  // Adds value * 2^exponent, cut towards 0 to whole units.
  KORVEX_INLINE void add_scaled(double value, int exponent) {
    const int position = 128 + exponent + kUnitExponent + shift(value);
    const std::uint64_t bits = significand(value);
    Natural<3> term{};
    if (position <= -64) {
      return;
    }
    if (position < 0) {
      term.word[0] = bits >> -position;
    } else if (position < 64) {
      term.word[0] = bits << position;
      term.word[1] = (bits >> 1) >> (63 - position);
    } else {  // below 128: the value is below 4
      term.word[1] = bits << (position - 64);
      term.word[2] = (bits >> 1) >> (127 - position);
    }
    if (is_negative(value)) {
      subtract(sum, term, sum);
    } else {
      arithmetic::add(sum, term, sum);
    }
  }
};

// largest + log(sum). Its error: 2^-72 for that of the sum relative to itself, which no logarithm
// enlarges, and n * 2^-125 for what was cut from the terms; kLogError for log_pair; 2^-100 for the
// roundings here.
KORVEX_COLD inline Rounded fast_log_sum(double largest, const ExpSum& sum, std::int64_t n) {
  const ValueAndError s = sum.leading();
  const ValueAndError log_high = log_pair(s.value);
  const double correction = div_rn(s.error, s.value);  // log1p of it, to 2^-105
  const ValueAndError log_sum = two_sum(log_high.value, correction);
  const double log_low = add_rn(log_sum.error, log_high.error);
  const ValueAndError upper = two_sum(largest, log_sum.value);  // exact
  const ValueAndError y = two_sum(upper.value, add_rn(upper.error, log_low));
  const double size = y.value < 0 ? -y.value : y.value;
  const double of_sum = fma_rn(static_cast<double>(n), 0x1p-125, 0x1p-71);
  const double error = fma_rn(log_sum.value, kLogError, fma_rn(size, 0x1p-100, of_sum));
  const double from = add_rn(y.value, sub_rn(y.error, error));
  const double to = add_rn(y.value, add_rn(y.error, error));
  return {to, from == to};
}

// The same sum in fixed point of W words.
template <int W>
struct FixedExpSum {
  Fixed<W> sum{};

  // exp of it is less than one unit.
  static constexpr double kLeastDifference = -44.4 * (W - 1);  // 64 log 2 < 44.4

  // Adds exp(x - largest), off by less than 2^kFixedExpUncertainBits units times itself, and 2.
  KORVEX_COLD void add_term(double x, double largest) {
    const ValueAndError d = two_sum(x, -largest);  // exact, unless it overflows to -infinity
    if (d.value == 0) {
      sum = sum + fixed_from<W>(1, 0);  // exactly
    } else if (d.value >= kLeastDifference) {
      const Fixed<W> head = fixed_magnitude<W>(d.value);
      const Fixed<W> tail = fixed_magnitude<W>(d.error);
      const FixedExp<W> e = fixed_exp(d.error > 0 ? head - tail : head + tail, true);
      sum = sum + shifted_down<W>(e.fixed, -e.exponent);
    }
  }

  KORVEX_COLD void add(const FixedExpSum& other) { sum = sum + other.sum; }
};

// log(a) for 1 <= a < 2^62: by its series where a is nearly 1, else y + log1p(a exp(-y) - 1) for
// the double y that is nearly log(a). Off by less than 2^(kFixedExpUncertainBits + 1) units.
template <int W>
KORVEX_COLD SignedFixed<W> fixed_log(const Fixed<W>& a) {
  const Fixed<W> one = fixed_from<W>(1, 0);
  const Fixed<W> excess = a - one;
  constexpr int kPoint = 64 * (W - 1);
  if (highest_bit(excess) < kPoint - 41) {
    return fixed_log1p(SignedFixed<W>{excess, false});
  }
  const int last = highest_bit(a) - kFractionBits;
  const double head = mul_rn(static_cast<double>(bits_from(a, last)), power_of_two(last - kPoint));
  const double y = log_pair(head).value;
  const FixedExp<W> e = fixed_exp(fixed_magnitude<W>(y), true);
  const Fixed<W> product = shifted_down<W>(fixed_product(a, e.fixed), -e.exponent);
  return SignedFixed<W>{fixed_magnitude<W>(y), false} +
         fixed_log1p(signed_difference(product, one));
}

// A logarithm of a sum of n exponentials, with its sign, rounded.
template <int W>
KORVEX_COLD Rounded rounded_log_sum(const Fixed<W>& magnitude, bool is_negative, std::int64_t n) {
  if (is_zero(magnitude)) {
    return {0.0, false};
  }
  // Units: 2^24 of the sum, 2^25 of its logarithm, 2 for each term, 1 for the largest element.
  int uncertain_bits = kFixedExpUncertainBits + 2;
  while (std::int64_t{1} << (uncertain_bits - 3) < n) {
    ++uncertain_bits;
  }
  const Rounded result = rounded(magnitude, 0, uncertain_bits);
  return {with_sign(result.value, is_negative), result.is_decided};
}

// largest + log(sum) with W words. Precondition: |largest| < 2^62; a larger one is decided before.
template <int W>
KORVEX_COLD Rounded accurate_log_sum(double largest, const Fixed<W>& sum, std::int64_t n) {
  const SignedFixed<W> start{fixed_magnitude<W>(largest), is_negative(largest)};
  const SignedFixed<W> y = start + fixed_log(sum);
  return rounded_log_sum(y.magnitude, y.is_negative, n);
}

template <int W, class Runner>
KORVEX_HD Rounded accurate_try(const Runner& runner, double largest, std::int64_t n) {
  const FixedExpSum<W>& sum = runner.template over<FixedExpSum<W>>(
      [=](const double* x, std::int64_t count, FixedExpSum<W>& part) {
        for (std::int64_t i = 0; i < count; ++i) {
          part.add_term(x[i], largest);
        }
      });
  return accurate_log_sum(largest, sum.sum, n);
}

constexpr int kSecondTryWords = 5;         // 256 bits after the point
constexpr int kThirdTryWords = kLn2Words;  // 1472

// What the first try gives, and the largest element, for the wider ones.
struct LogSumTry {
  Rounded result;
  double largest;
};

// What the largest element alone decides: -infinity for no element, or where all are -infinity; NaN
// where one is; +infinity where one is; a single finite element itself, -0 as +0.
KORVEX_HD inline LogSumTry log_sum_of_largest(const LargestElement& head) {
  if (head.has_nan) {
    return {{canonical_nan(), true}, head.value};
  }
  const bool is_decided = !is_finite(head.value) || head.finite_count == 1;
  return {{add_rn(head.value, 0.0), is_decided}, head.value};
}

// Without the wider tries, of n elements.
template <class Runner>
KORVEX_HD LogSumTry first_log_sum_exp(const Runner& runner, std::int64_t n) {
  const LogSumTry of_largest = log_sum_of_largest(runner.template over<LargestElement>(
      [](const double* x, std::int64_t count, LargestElement& part) { part.add_range(x, count); }));
  if (of_largest.result.is_decided) {
    return of_largest;
  }
  const double largest = of_largest.largest;
  const ExpSum sum =
      runner.template over<ExpSum>([=](const double* x, std::int64_t count, ExpSum& part) {
        for (std::int64_t i = 0; i < count; ++i) {
          part.add_term(x[i], largest);
        }
      });
  return {fast_log_sum(largest, sum, n), largest};
}

template <class Runner>
KORVEX_HD double log_sum_exp(const Runner& runner, std::int64_t n) {
  const LogSumTry first = first_log_sum_exp(runner, n);
  if (first.result.is_decided) {
    return first.result.value;
  }
  const Rounded second = accurate_try<kSecondTryWords>(runner, first.largest, n);
  if (second.is_decided) {
    return second.value;
  }
  return accurate_try<kThirdTryWords>(runner, first.largest, n).value;
}

}  // namespace korvex::arithmetic
