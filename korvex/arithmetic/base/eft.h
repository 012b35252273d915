// SPDX-License-Identifier: Apache-2.0
// Error-free transformations: a rounded result together with its exact rounding error.
//
// TwoSum: Knuth, The Art of Computer Programming 2, 4.2.2, theorem B (Moller 1965).
// FastTwoSum: Dekker, A floating-point technique for extending the available precision, 1971.
// TwoProduct by one fused multiply-add: Ogita, Rump and Oishi, Accurate sum and dot product, 2005,
// algorithm 3.5; Dekker 1971 with the splitting of Veltkamp 1968 where no such operation exists.
#pragma once

#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// Real, here and wherever it is a parameter: a double, or several in the lanes of a register.
template <class Real>
struct ValueAndErrorOf {
  Real value;  // the rounded result
  Real error;  // exact result minus value
};
using ValueAndError = ValueAndErrorOf<double>;

// Exact for all finite a and b whose sum does not overflow, subnormal ones included.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> two_sum(Real a, Real b) {
  const Real sum = add_rn(a, b);            // rounded
  const Real b_part = sub_rn(sum, a);       // what of b went into the sum
  const Real a_part = sub_rn(sum, b_part);  // what of a went into the sum
  const Real b_error = sub_rn(b, b_part);   // exact
  const Real a_error = sub_rn(a, a_part);   // exact
  return {sum, add_rn(a_error, b_error)};   // exact
}

// Exact under the condition of two_sum and: a == 0, or the exponent of a is at least that of b.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> fast_two_sum(Real a, Real b) {
  const Real sum = add_rn(a, b);       // rounded
  const Real b_part = sub_rn(sum, a);  // exact
  return {sum, sub_rn(b, b_part)};     // exact
}

// Exact where the product does not overflow and either is 0 or has |a * b| >= 2^-969: then the
// error, a multiple of 2^(exponent of a + exponent of b - 104), is a multiple of 2^-1074.
template <class Real>
KORVEX_INLINE ValueAndErrorOf<Real> two_product(Real a, Real b) {
  const Real product = mul_rn(a, b);         // rounded
  return {product, fma_rn(a, b, -product)};  // exact
}

// x == high + low with both at most 26 bits long, for |x| < kSplitLimit.
constexpr double kSplitLimit = 0x1p+995;
template <class Real>
KORVEX_INLINE Real high_half(Real x) {
  const Real scaled = mul_rn(Real(134217729.0), x);  // 2^27 + 1; rounded
  return sub_rn(scaled, sub_rn(scaled, x));          // rounded, then exact
}

// x * y - RN(x * y) by Dekker's product, exact under the condition of two_product where both
// factors are below kSplitLimit in magnitude; beyond that it may be NaN.
template <class Real>
KORVEX_INLINE Real split_product_error(Real x, Real y, Real product) {
  const Real x_high = high_half(x);
  const Real x_low = sub_rn(x, x_high);  // exact
  const Real y_high = high_half(y);
  const Real y_low = sub_rn(y, y_high);                       // exact
  const Real rest = sub_rn(mul_rn(x_high, y_high), product);  // exact, and so are the next two
  const Real less = add_rn(rest, mul_rn(x_high, y_low));
  const Real still_less = add_rn(less, mul_rn(x_low, y_high));
  return add_rn(still_less, mul_rn(x_low, y_low));  // exact
}

// The same, by whichever of the two is fast here.
template <class Real>
KORVEX_INLINE Real product_error(Real x, Real y, Real product) {
  if constexpr (kFmaIsFast) {
    return fma_rn(x, y, -product);
  } else {
    return split_product_error(x, y, product);
  }
}

}  // namespace korvex::arithmetic
