// SPDX-License-Identifier: Apache-2.0
// Fixed point of several words, for the accurate phases of the elementary functions: product,
// quotient, and rounding where the last bits are in doubt.
//
// A Fixed<W> is a Natural<W> that counts units of 2^(-64 (W - 1)): its last word is the integer
// part. Sum, difference, order and product with a word are those of Natural, and exact; products,
// quotients and shifts round down, by less than one unit unless their comment says otherwise.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"

namespace korvex::arithmetic {

template <int W>
using Fixed = Natural<W>;

// 2^exponent times a 64-bit integer, rounded down. Precondition: it fits.
template <int W>
KORVEX_HD Fixed<W> fixed_from(std::uint64_t value, int exponent) {
  return shifted_down<W>(Natural<1>{{value}}, -exponent - 64 * (W - 1));
}

// a * b, fewer than W units too small: of the columns below the units, only the next is added up.
template <int W>
KORVEX_COLD Fixed<W> fixed_product(const Fixed<W>& a, const Fixed<W>& b) {
  Fixed<W> product;
  multiply_columns(a.word, W, b.word, W, {W - 2, W - 1, 2 * W - 1}, product.word);
  return product;
}

// a / b by long division, one bit at a time. Precondition: a < 2 b, b >= 1/2, both below 2^62.
template <int W>
KORVEX_COLD Fixed<W> fixed_quotient(Fixed<W> a, const Fixed<W>& b) {
  Fixed<W> quotient{};
  for (int bit = 64 * (W - 1); bit >= 0; --bit) {
    if (!(a < b)) {
      subtract(a, b, a);
      quotient.word[bit / 64] |= std::uint64_t{1} << (bit % 64);
    }
    shift_up(a, 1);
  }
  return quotient;
}

// sqrt(a). Precondition: a < 4, and the root is not a.
template <int W>
KORVEX_HD void fixed_square_root(const Fixed<W>& a, Fixed<W>& root) {
  square_root(a, -64 * (W - 1), root);
}

template <int W>
struct SignedFixed {
  Fixed<W> magnitude;
  bool is_negative;
};

template <int W>
KORVEX_HD SignedFixed<W> operator+(const SignedFixed<W>& a, const SignedFixed<W>& b) {
  if (a.is_negative == b.is_negative) {
    return {a.magnitude + b.magnitude, a.is_negative};
  }
  if (a.magnitude < b.magnitude) {
    return {b.magnitude - a.magnitude, b.is_negative};
  }
  return {a.magnitude - b.magnitude, a.is_negative};
}

template <int W>
KORVEX_HD SignedFixed<W> signed_difference(const Fixed<W>& a, const Fixed<W>& b) {
  return SignedFixed<W>{a, false} + SignedFixed<W>{b, true};
}

// ---- rounding ----

template <class Real>
struct RoundedOf {
  Real value;
  typename Companions<Real>::Flag is_decided;  // whether the rounding is that of the exact value
};
using Rounded = RoundedOf<double>;

// RN(a * 2^exponent) for an exact value within 2^uncertain_bits units of a. Undecided where a
// midpoint of two doubles lies that near: where the bits after that of half a gap, down to the
// uncertain ones, are all its opposite. Precondition: a > 0.
template <int W>
KORVEX_COLD Rounded rounded(const Fixed<W>& a, int exponent, int uncertain_bits) {
  const int unit_exponent = exponent - 64 * (W - 1);
  const int half = last_kept_bit(highest_bit(a), unit_exponent) - 1;
  bool is_decided = false;
  for (int position = half - 1; position > uncertain_bits && !is_decided; --position) {
    is_decided = bit_at(a, position) == bit_at(a, half);
  }
  return {nearest(a, unit_exponent, false), is_decided};
}

}  // namespace korvex::arithmetic
