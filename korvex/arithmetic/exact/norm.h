// SPDX-License-Identifier: Apache-2.0
// The Euclidean norm, correctly rounded: the exact sum of squares, and the integer square root of
// its leading bits, whose remainder decides the rounding. [3e200, 4e200] gives 5e200.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"

namespace korvex::arithmetic {

using SquareSum = Natural<ProductAccumulator::kDigits>;

// floor(sqrt(high * 2^64 + low)), one bit at a time; `rest` becomes 0 where it is exact.
// Precondition: high >= 2^62, so the root has 64 bits.
KORVEX_COLD inline std::uint64_t square_root_of_128_bits(std::uint64_t high, std::uint64_t low,
                                                         bool& is_exact) {
  std::uint64_t root = 0;
  for (int bit = 63; bit >= 0; --bit) {
    const std::uint64_t trial = root | std::uint64_t{1} << bit;
    const std::uint64_t square_high = multiply_high(trial, trial);
    const std::uint64_t square_low = trial * trial;
    if (square_high < high || (square_high == high && square_low <= low)) {
      root = trial;
    }
  }
  is_exact = multiply_high(root, root) == high && root * root == low;
  return root;
}

// RN(sqrt(sum of squares)) for a sum in units of 2^-2148.
KORVEX_COLD inline double root_of_squares(const SquareSum& squares) {
  const int top = squares.top_bit();
  if (top < 0) {
    return 0.0;
  }
  // The leading 127 or 128 bits, from an even position on, so that the root has a whole exponent.
  const int position = top - 126 - (top & 1);
  bool is_exact = false;
  const std::uint64_t root = square_root_of_128_bits(squares.bits_from(position + 64),
                                                     squares.bits_from(position), is_exact);
  const bool has_more = !is_exact || squares.any_below(position);
  return nearest_double({root, position / 2 + kUnitExponent, has_more});
}

// out[0]: any NaN gives NaN, else any infinity +infinity; 0 for no elements.
KORVEX_COLD inline void write_norm(ExactProductSum& squares, SquareSum& work, double* out) {
  if (!squares.is_sum_of_finite()) {
    out[0] = squares.is_decided() ? canonical_nan() : infinity();
    return;
  }
  squares.magnitude(work.word);
  out[0] = root_of_squares(work);
}

}  // namespace korvex::arithmetic
