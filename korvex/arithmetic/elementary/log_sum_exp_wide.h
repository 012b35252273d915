// SPDX-License-Identifier: Apache-2.0
// log(exp(x[0]) + exp(x[1]) + ...) for threads whose wider tries have their numbers in memory.
//
// The tries are those of log_sum_exp(). In the wider ones each thread adds its terms with the
// memory of its part, and the first thread takes the logarithm with that of the joined part.
#pragma once

#include "korvex/arithmetic/elementary/exponential_wide.h"
#include "korvex/arithmetic/elementary/log_sum_exp.h"

namespace korvex::arithmetic {

// A sum as FixedExpSum's, and the numbers of the thread that works on it.
template <int W>
struct WideExpSum {
  Fixed<W> sum{};
  WideExp<W> work;
  Rounded result;  // of all terms, in the joined part

  // Adds exp(x - largest), off by less than 2^kFixedExpUncertainBits units times itself, and 2.
  KORVEX_COLD void add_term(double x, double largest) {
    const ValueAndError d = two_sum(x, -largest);  // exact, unless it overflows to -infinity
    if (d.value == 0) {
      sum.word[W - 1] += 1;  // exactly
    } else if (d.value >= FixedExpSum<W>::kLeastDifference) {
      set_magnitude(d.value, work.argument);
      set_magnitude(d.error, work.term);
      if (d.error > 0) {
        subtract(work.argument, work.term, work.argument);
      } else {
        arithmetic::add(work.argument, work.term, work.argument);
      }
      const int exponent = exp_of_negative(work);
      shift_down(work.value, -exponent, work.value);
      arithmetic::add(sum, work.value, sum);
    }
  }

  KORVEX_COLD void add(const WideExpSum& other) { arithmetic::add(sum, other.sum, sum); }
};

// a + b for numbers with signs; a becomes the sum, and its sign comes back.
template <int W>
KORVEX_COLD bool add_signed(Fixed<W>& a, bool a_is_negative, const Fixed<W>& b,
                            bool b_is_negative) {
  if (a_is_negative == b_is_negative) {
    add(a, b, a);
    return a_is_negative;
  }
  if (a < b) {
    subtract(b, a, a);
    return b_is_negative;
  }
  subtract(a, b, a);
  return a_is_negative;
}

// sum = a for 1 <= a < 2^62: it becomes |z| with log(a) = y + log(1 + z), |z| < 2^-40, and y is
// nearly log(a), or 0 where a is nearly 1. Whether z is negative comes back.
template <int W>
KORVEX_COLD bool reduce_log(WideExpSum<W>& a, double& y) {
  constexpr int kPoint = 64 * (W - 1);
  WideExp<W>& work = a.work;
  y = 0.0;
  a.sum.word[W - 1] -= 1;
  if (highest_bit(a.sum) < kPoint - 41) {
    return false;
  }
  a.sum.word[W - 1] += 1;
  const int last = highest_bit(a.sum) - kFractionBits;
  const double head =
      mul_rn(static_cast<double>(bits_from(a.sum, last)), power_of_two(last - kPoint));
  y = log_pair(head).value;
  set_magnitude(y, work.argument);
  const int exponent = exp_of_negative(work);
  multiply_fixed(a.sum, work.value, work.product);
  shift_down(work.product, -exponent, a.sum);
  set_integer(1, work.term);
  return add_signed(a.sum, false, work.term, true);
}

// work.value = log(1 + z) for |z| < 2^-40 in sum, until the terms vanish; its sign comes back.
template <int W>
KORVEX_COLD bool sum_log1p(WideExpSum<W>& z, bool z_is_negative) {
  WideExp<W>& work = z.work;
  Fixed<W>& power = work.argument;
  power = z.sum;
  work.value = z.sum;
  bool is_negative = z_is_negative;
  for (std::uint32_t n = 2;; ++n) {
    multiply_fixed(power, z.sum, work.product);
    power = work.product;
    work.term = power;
    divide(work.term, n);
    if (is_zero(work.term)) {
      return is_negative;
    }
    // -z^2/2, +z^3/3 with the sign of z
    is_negative = add_signed(work.value, is_negative, work.term, n % 2 == 0 || z_is_negative);
  }
}

// largest + log(sum), as accurate_log_sum; the sum is used up.
template <int W>
KORVEX_COLD Rounded wide_log_sum(double largest, WideExpSum<W>& sum, std::int64_t n) {
  WideExp<W>& work = sum.work;
  double y = 0;
  const bool z_is_negative = reduce_log(sum, y);
  bool negative = sum_log1p(sum, z_is_negative);
  set_magnitude(y, work.term);
  negative = add_signed(work.value, negative, work.term, false);
  set_magnitude(largest, work.term);
  negative = add_signed(work.value, negative, work.term, is_negative(largest));
  return rounded_log_sum(work.value, negative, n);
}

// The first thread rounds, and all get the result.
template <int W, class Runner>
KORVEX_HD Rounded try_in_memory(const Runner& runner, double largest, std::int64_t n) {
  auto&& sum = runner.template over<WideExpSum<W>>(
      [=](const double* x, std::int64_t count, WideExpSum<W>& part) {
        for (std::int64_t i = 0; i < count; ++i) {
          part.add_term(x[i], largest);
        }
      });
  if (runner.is_first()) {
    sum.result = wide_log_sum(largest, sum, n);
  }
  runner.sync();
  return sum.result;
}

// As log_sum_exp(runner, n). The runner also has is_first() and a barrier, sync(), for all threads.
template <class Runner>
KORVEX_HD double log_sum_exp_in_memory(const Runner& runner, std::int64_t n) {
  const LogSumTry first = first_log_sum_exp(runner, n);
  if (first.result.is_decided) {
    return first.result.value;
  }
  const Rounded second = try_in_memory<kSecondTryWords>(runner, first.largest, n);
  if (second.is_decided) {
    return second.value;
  }
  return try_in_memory<kThirdTryWords>(runner, first.largest, n).value;
}

}  // namespace korvex::arithmetic
