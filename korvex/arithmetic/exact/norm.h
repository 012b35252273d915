// SPDX-License-Identifier: Apache-2.0
// The Euclidean norm, correctly rounded: the exact sum of squares, and the integer square root of
// its leading bits, whose remainder decides the rounding. [3e200, 4e200] gives 5e200.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"

namespace korvex::arithmetic {

// The big number of a norm; on a device it lies in static memory.
struct NormWorkspace {
  ProductAccumulator::Magnitude squares;  // their sum, in units of 2^-2148
};

// RN(sqrt(sum of squares)).
KORVEX_COLD inline double root_of_squares(const NormWorkspace& work) {
  const int highest = highest_bit(work.squares);
  if (highest < 0) {
    return 0.0;
  }
  // The leading 127 or 128 bits give 64 of the root; from an even bit on, so that the root has a
  // whole exponent.
  const int lowest = highest - 126 - (highest & 1);
  Natural<2> root;
  const bool is_exact = square_root(shifted_down<2>(work.squares, lowest), 0, root);
  const bool has_more = !is_exact || any_below(work.squares, lowest);
  return nearest(root, lowest / 2 + kUnitExponent, has_more);
}

// out[0]: any NaN gives NaN, else any infinity +infinity; 0 for no elements.
KORVEX_COLD inline void write_norm(ExactProductSum& squares, NormWorkspace& work, double* out) {
  if (!squares.is_sum_of_finite()) {
    out[0] = squares.is_decided() ? canonical_nan() : infinity();
    return;
  }
  squares.magnitude(work.squares);
  out[0] = root_of_squares(work);
}

}  // namespace korvex::arithmetic
