// SPDX-License-Identifier: Apache-2.0
// Sum, difference, product and quotient of two doubles, each as a value and an error.
//
// The value is the IEEE result. The error is what the value leaves over: of a sum and a difference
// the outcome of the six operations as they stand, infinities included; of a product and a quotient
// the correctly rounded rest, +0 where the value is not finite. Every NaN is the canonical one.
// What is exact and why is proved in docs/numerics_pairs.md.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

KORVEX_INLINE double with_canonical_nan(double x) { return x != x ? canonical_nan() : x; }

// TwoSum and nothing else: where the sum overflows or an operand is infinite, the error is NaN.
KORVEX_INLINE ValueAndError add_pair(double x, double y) {
  const ValueAndError sum = two_sum(x, y);  // exact below overflow
  return {with_canonical_nan(sum.value), with_canonical_nan(sum.error)};
}

// The sum with the negated operand: negation is exact.
KORVEX_INLINE ValueAndError subtract_pair(double x, double y) { return add_pair(x, -y); }

// The error is RN(x * y - value): exact where it is a multiple of 2^-1074, which it is wherever
// |x * y| >= 2^-969. Adding +0 turns an error of -0 into +0 and changes no other.
KORVEX_INLINE ValueAndError multiply_pair(double x, double y) {
  const double product = mul_rn(x, y);
  const double rest = add_rn(fma_rn(x, y, -product), 0.0);  // one rounding, in the fma
  return {with_canonical_nan(product), is_finite(product) ? rest : 0.0};
}

// A dividend below it is scaled before the remainder is taken, and the divisor with it: the
// remainder is then a multiple of 2^-1074, and the quotient of the two is the same.
constexpr double kScaledDividends = 0x1p-969;
constexpr double kDividendScale = 0x1p+128;

// Neither zero nor subnormal, infinite or NaN.
KORVEX_INLINE bool is_normal(double x) {
  const std::uint64_t magnitude = magnitude_bits(x);
  return magnitude > kFractionMask && magnitude < kInfinityBits;
}

// The error is RN(x / y - value). A quotient that is not normal has none: below 2^-1022 the rest is
// at most half of 2^-1074 and rounds to zero, and a quotient that is not finite leaves no rest.
KORVEX_INLINE ValueAndError divide_pair(double x, double y) {
  const double quotient = div_rn(x, y);
  const double magnitude = absolute(x);
  const double scale = magnitude < kScaledDividends ? kDividendScale : 1.0;
  const double dividend = mul_rn(x, scale);                       // exact
  const double divisor = mul_rn(y, scale);                        // exact for a normal quotient
  const double remainder = fma_rn(-quotient, divisor, dividend);  // exact for a normal quotient
  const double rest = add_rn(div_rn(remainder, divisor), 0.0);    // one rounding, in the division
  return {with_canonical_nan(quotient), is_normal(quotient) ? rest : 0.0};
}

}  // namespace korvex::arithmetic
