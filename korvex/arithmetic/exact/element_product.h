// SPDX-License-Identifier: Apache-2.0
// The product of all elements as two canonical limbs: l0 = RN(P), l1 = RN(P - l0), P the exact
// product. Nothing overflows or underflows on the way.
//
// The product is taken in a number of a few words that drops its lowest word when it is full and
// counts how often it did: the exact product then lies in a known interval above it. Both limbs are
// monotonic in P, so where the two ends of the interval give the same two limbs, those are the
// limbs of P. Where they do not, the product is taken once more in 4096 bits; what even that cannot
// decide is the rounding of the lower end.
//
// Which elements were multiplied first changes what is dropped, but not a decided result; and 4096
// bits decide whatever fewer bits in any order do.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"
#include "korvex/arithmetic/bignum/truncated_float.h"

namespace korvex::arithmetic {

constexpr int kFastProductWords = 6;
constexpr int kAccurateProductWords = 64;

// The product of some elements, with what is not a number among them; two join to that of both.
template <int kWords>
struct ElementProduct {
  TruncatedFloat<kWords> magnitude;  // of the product of the finite elements that are not 0
  bool is_negative = false;
  bool has_nan = false;
  bool has_infinity = false;
  bool has_zero = false;

  KORVEX_INLINE void multiply(double x) {
    is_negative = is_negative != arithmetic::is_negative(x);
    if (!is_finite(x)) {
      has_nan = has_nan || is_nan(x);
      has_infinity = has_infinity || !is_nan(x);
    } else if (x == 0) {
      has_zero = true;
    } else {
      magnitude.multiply(x);
    }
  }

  KORVEX_HD void add_range(const double* x, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) {
      multiply(x[i]);
    }
  }

  KORVEX_COLD void add(const ElementProduct& other) {
    magnitude.multiply(other.magnitude);
    is_negative = is_negative != other.is_negative;
    has_nan = has_nan || other.has_nan;
    has_infinity = has_infinity || other.has_infinity;
    has_zero = has_zero || other.has_zero;
  }

  // True, with both outputs written, where the product is not that of finite non-zero elements.
  KORVEX_COLD bool write_special(double* out, double* out_err) const {
    if (!has_nan && !has_infinity && !has_zero) {
      return false;
    }
    out_err[0] = 0.0;
    if (has_nan || (has_infinity && has_zero)) {
      out[0] = canonical_nan();
    } else if (has_infinity) {
      out[0] = is_negative ? -infinity() : infinity();
    } else {
      out[0] = 0.0;
    }
    return true;
  }
};

using FastProduct = ElementProduct<kFastProductWords>;
using AccurateProduct = ElementProduct<kAccurateProductWords>;

// Of integers in the unit of the product, with a word for what rounding up or the interval may add.
template <int kWords>
struct ProductWorkspace {
  Natural<kWords + 1> bits;
  Natural<kWords + 1> rest;
};

// limbs[0] = RN(v), limbs[1] = RN(v - limbs[0]) for v = work.bits * 2^exponent > 0; an infinity is
// followed by 0. Each limb is rounded once, subnormal ones too.
template <int kWords>
KORVEX_COLD void round_to_two_limbs(ProductWorkspace<kWords>& work, int exponent, double* limbs) {
  limbs[0] = nearest(work.bits, exponent, false);
  limbs[1] = 0.0;
  if (!is_finite(limbs[0]) || limbs[0] == 0) {
    return;  // after 0, at most half of 2^-1074 is left, which rounds to 0
  }
  // The limb as an integer of the same unit, exactly: its exponent may lie below the unit of v only
  // where v is that limb.
  const int position = kUnitExponent + shift(limbs[0]) - exponent;
  shift_down(Natural<1>{{significand(limbs[0])}}, -position, work.rest);
  const bool is_above = work.bits < work.rest;
  if (is_above) {
    subtract(work.rest, work.bits, work.rest);
  } else {
    subtract(work.bits, work.rest, work.rest);
  }
  limbs[1] = with_sign(nearest(work.rest, exponent, false), is_above);
}

// Above it every limb is infinite, below its negative every limb is 0; far inside of int.
constexpr std::int64_t kExponentClamp = 1 << 20;

// Writes both limbs; false where they are only those of the lower end of the interval.
template <int kWords>
KORVEX_COLD bool write_product_limbs(const ElementProduct<kWords>& product,
                                     ProductWorkspace<kWords>& work, double* out, double* out_err) {
  const TruncatedFloat<kWords>& magnitude = product.magnitude;
  std::int64_t clamped = magnitude.exponent;
  clamped = clamped > kExponentClamp ? kExponentClamp : clamped;
  clamped = clamped < -kExponentClamp ? -kExponentClamp : clamped;
  const int exponent = static_cast<int>(clamped);
  double lower[2];
  shift_down(magnitude, 0, work.bits);
  round_to_two_limbs(work, exponent, lower);
  out[0] = with_sign(lower[0], product.is_negative);
  out_err[0] = with_sign(lower[1], product.is_negative);
  if (magnitude.dropped == 0) {
    return true;
  }
  // Each loss was below one part in 2^(64 (kWords - 1)), and the number is below 2^(64 kWords)
  // units: fewer than dropped * 2^64 units were lost, times 1 + 2^-100 for losses of losses.
  double upper[2];
  const auto lost = 2 * static_cast<std::uint64_t>(magnitude.dropped);
  shift_down(Natural<1>{{lost}}, -64, work.rest);
  add(work.bits, work.rest, work.bits);
  round_to_two_limbs(work, exponent, upper);
  return upper[0] == lower[0] && upper[1] == lower[1];
}

// What the second try needs; on a device it lies in static memory.
struct AccurateProductWorkspace {
  AccurateProduct product;
  ProductWorkspace<kAccurateProductWords> integers;
};

// out[0], out_err[0]: the limbs of the product of x[0] to x[n - 1]; 1 for no elements. Any NaN, or
// an infinity with a zero, gives NaN; a product that overflows is an infinity; 0 follows both.
KORVEX_COLD inline void write_product(const FastProduct& product, const double* x, std::int64_t n,
                                      AccurateProductWorkspace& accurate, double* out,
                                      double* out_err) {
  if (product.write_special(out, out_err)) {
    return;
  }
  ProductWorkspace<kFastProductWords> work;
  if (write_product_limbs(product, work, out, out_err)) {
    return;
  }
  accurate.product = AccurateProduct();
  accurate.product.add_range(x, n);
  write_product_limbs(accurate.product, accurate.integers, out, out_err);
}

}  // namespace korvex::arithmetic
