// SPDX-License-Identifier: Apache-2.0
// The unary functions that take one or two operations.
#pragma once

#include "korvex/arithmetic/base/binary64.h"

namespace korvex::arithmetic {

// max(x, 0); NaN stays NaN, and -0 becomes +0.
KORVEX_INLINE double relu(double x) {
  if (is_nan(x)) {
    return canonical_nan();
  }
  return x > 0 ? x : 0.0;
}

// Flips the sign bit of whatever it gets, NaN included.
KORVEX_INLINE double negated(double x) { return from_bits(to_bits(x) ^ kSignBit); }

// The IEEE square root: -0 gives -0, a negative number NaN.
KORVEX_INLINE double square_root(double x) {
  const double root = sqrt_rn(x);
  return is_nan(root) ? canonical_nan() : root;
}

// x where x > 0, else RN(slope * x)
KORVEX_INLINE double leaky_relu(double x, double slope) {
  const double result = x > 0 ? x : mul_rn(slope, x);
  return is_nan(result) ? canonical_nan() : result;
}

}  // namespace korvex::arithmetic
