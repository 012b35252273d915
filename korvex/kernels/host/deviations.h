// SPDX-License-Identifier: Apache-2.0
// Sums of deviations from a pivot and of their squares, each as two doubles, with a bound on what
// rounding took: for variances and norms of which a look at these decides the rounding.
//
// A deviation d = x - pivot is exact as value + error (TwoSum). With u = 2^-53, n deviations,
// Q the sum of d^2 and A that of |d|, so that A^2 <= n Q:
//   - a square is product + error within 7 u^2 d^2: the product's own error is exact, what d.error
//     adds to it has two roundings, and d.error^2 is left out;
//   - the values of sums are added up by TwoSum, exactly; what that leaves, at most u times the sum
//     so far, is added to a rest, which stays below 5 (n + 3) u times Q, or times A; it is rounded
//     twice an addition, and sums that are joined are at most n additions more: together less than
//     13 (n + 1)^2 u^2 Q, or A.
// So Q - S^2 / n is off by less than 13 (n + 1)^2 u^2 Q + 2 A 13 (n + 1)^2 u^2 A / n + 7 u^2 Q,
// which is below 40 (n + 2)^2 u^2 Q. Where Q is at least 2^-700, products that are subnormal change
// nothing of that; where it is at most 2^900, nothing overflows.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::host {

constexpr double kLeastSquares = 0x1p-700;
constexpr double kMostSquares = 0x1p+900;

// Above the error of Q - S^2 / n, three times, for n deviations with this sum of squares.
inline double slack_of_squares(double n, double squares) {
  return 128 * (n + 2) * (n + 2) * 0x1p-106 * squares;
}

template <class Lanes>
struct Deviations {
  using Value = typename Lanes::Value;
  using Bits = typename Lanes::Bits;

  Value sum = Value(0.0);
  Value sum_rest = Value(0.0);
  Value squares = Value(0.0);
  Value squares_rest = Value(0.0);
  Bits seen{};  // bits of all deviations: zero but for the sign while all are zero

  KORVEX_INLINE void add(const arithmetic::ValueAndErrorOf<Value>& d) {
    const Value product = arithmetic::mul_rn(d.value, d.value);              // rounded
    const Value own = arithmetic::product_error(d.value, d.value, product);  // exact
    const Value error = arithmetic::add_rn(
        own, arithmetic::mul_rn(arithmetic::add_rn(d.value, d.value), d.error));  // rounded twice
    add_to(sum, sum_rest, d.value, d.error);
    add_to(squares, squares_rest, product, error);
    seen |= arithmetic::to_bits(d.value);
  }

  // Precondition: of the same pivot.
  KORVEX_INLINE void join(const Deviations& other) {
    add_to(sum, sum_rest, other.sum, other.sum_rest);
    add_to(squares, squares_rest, other.squares, other.squares_rest);
    seen |= other.seen;
  }

 private:
  KORVEX_INLINE static void add_to(Value& total, Value& rest, Value value, Value error) {
    const auto next = arithmetic::two_sum(total, value);  // exact
    total = next.value;
    rest = arithmetic::add_rn(rest, arithmetic::add_rn(next.error, error));  // rounded twice
  }
};

// An element as a double, or as two, less the pivot.
template <class Value>
KORVEX_INLINE arithmetic::ValueAndErrorOf<Value> deviation(Value x, Value pivot) {
  return arithmetic::two_sum(x, -pivot);  // exact
}
// Halves of 64-bit integers: those above are multiples of 2^32 up to 2^64, those below are less.
template <class Value>
KORVEX_INLINE arithmetic::ValueAndErrorOf<Value> deviation(Value high, Value low, Value pivot_high,
                                                           Value pivot_low) {
  return arithmetic::two_sum(arithmetic::sub_rn(high, pivot_high),
                             arithmetic::sub_rn(low, pivot_low));  // exact, all
}

}  // namespace korvex::host
