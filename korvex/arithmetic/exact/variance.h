// SPDX-License-Identifier: Apache-2.0
// Mean and variance (divisor n - 1), each the correct rounding of its exact value: nothing
// overflows, underflows or cancels on the way.
//
// Phases: the exact sum of the elements and the exact sum of their squares, as integers; then
// n * sum(x^2) - sum(x)^2, which is n times the sum of the squared deviations, still an integer;
// then one division, whose remainder decides the rounding.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"
#include "korvex/arithmetic/exact/dot.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/arithmetic/exact/sum.h"

namespace korvex::arithmetic {

// What variance and mean need of the elements; two of them join to that of both.
struct Moments {
  ExactSum sum;
  ExactProductSum squares;

  KORVEX_COLD void add(const Moments& other) {
    sum.add(other.sum);
    squares.add(other.squares);
  }

  // Adds x[0] to x[n - 1]; n <= 0 adds nothing.
  template <class Lanes>
  KORVEX_HD void add_elements(const double* x, std::int64_t n) {
    arithmetic::add_range<Lanes>(x, n, sum);
    add_products<Lanes>(x, x, n, squares);
  }
};

// Big numbers of a variance; on a device they lie in static memory.
struct VarianceWorkspace {
  // |sum(x)| in units of 2^-1074, with a word below for the fraction of a mean.
  LongAccumulator::Magnitude sum;
  Natural<LongAccumulator::kWords + 1> mean;
  // Of squares, in units of 2^-2148. Both terms of the difference are below 2^4322: |sum(x)| <
  // 2^(63 + 1024 + 1074), and n sum(x^2) < 2^(63 + 63 + 2048 + 2148).
  ProductAccumulator::Magnitude squares;
  Natural<69> difference;
  Natural<69> square_of_sum;
};

// RN(sum / n). Preconditions: n > 0; work.sum holds the magnitude of the sum.
KORVEX_COLD inline double mean_of(VarianceWorkspace& work, bool is_negative, std::int64_t n) {
  constexpr int kFraction = 64;  // bits below 2^-1074: the rounding bit is among them
  shift_down(work.sum, -kFraction, work.mean);
  const bool has_more = divide(work.mean, static_cast<std::uint64_t>(n));
  return with_sign(nearest(work.mean, kUnitExponent - kFraction, has_more), is_negative);
}

// RN((n sum(x^2) - sum(x)^2) / (n (n - 1))). Precondition: n > 1. The difference is not negative
// (Cauchy-Schwarz), and dividing twice rounds down to the same quotient as dividing once.
KORVEX_COLD inline double variance_of(VarianceWorkspace& work, std::int64_t n) {
  const auto count = static_cast<std::uint64_t>(n);
  multiply(work.squares, count, work.difference);
  square(work.sum, work.square_of_sum);
  subtract(work.difference, work.square_of_sum, work.difference);
  const bool has_more = divide(work.difference, count);
  const bool has_still_more = divide(work.difference, count - 1);
  return nearest(work.difference, 2 * kUnitExponent, has_more || has_still_more);
}

// out_mean[0] and out_var[0] of n elements: NaN where an element is not finite, the mean where
// there is none, the variance where there are fewer than two.
KORVEX_COLD inline void write_variance(Moments& moments, std::int64_t n, VarianceWorkspace& work,
                                       double* out_mean, double* out_var) {
  out_mean[0] = canonical_nan();
  out_var[0] = canonical_nan();
  if (n <= 0 || !moments.sum.is_sum_of_finite()) {
    return;
  }
  const bool is_negative = moments.sum.magnitude(work.sum);
  out_mean[0] = mean_of(work, is_negative, n);
  if (n > 1) {
    moments.squares.magnitude(work.squares);
    out_var[0] = variance_of(work, n);
  }
}

}  // namespace korvex::arithmetic
