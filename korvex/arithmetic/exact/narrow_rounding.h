// SPDX-License-Identifier: Apache-2.0
// Rounding an exact value once to a format narrower than binary64.
//
// Rounding a double, which is rounded itself, would round twice: a value just above a midpoint of
// the narrow format may become that midpoint as a double. A double that was rounded to odd instead
// (truncated, with the last bit set where anything was cut off) is never on a midpoint unless the
// value is, as it has more than two bits beyond the narrow format; so it rounds as the exact value
// does. Boldo and Melquiond, Emulation of FMA and correctly rounded sums: proved algorithms using
// rounding to odd, 2008, theorem 1.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// What matters of a binary format: bits of a significand, the exponent of the last place of
// subnormal numbers, and the exponent that finite numbers lie below.
struct NarrowFormat {
  int precision;
  int unit_exponent;
  int end_exponent;
};
constexpr NarrowFormat kFloat32 = {24, -149, 128};
constexpr NarrowFormat kFloat16 = {11, -24, 16};
constexpr NarrowFormat kBfloat16 = {8, -133, 128};

// The double to odd of a value v, given nearest = RN(v), finite, and the sign of v - nearest: -1, 0
// or 1. Where something is left, v lies between nearest and a neighbour, of which one is odd.
KORVEX_INLINE double round_to_odd(double nearest, int sign_of_rest) {
  const std::uint64_t bits = to_bits(nearest);
  if (sign_of_rest == 0 || (bits & 1) != 0) {
    return nearest;
  }
  const bool rest_is_negative = sign_of_rest < 0;
  if (nearest == 0) {
    return rest_is_negative ? from_bits(kSignBit | 1) : from_bits(1);
  }
  return from_bits(is_negative(nearest) == rest_is_negative ? bits + 1 : bits - 1);
}

// The number of the format nearest to x, as a double, ties to even, infinities where that
// overflows; zero is +0. An infinity or a NaN stays as it is.
KORVEX_INLINE double round_to_format(double x, const NarrowFormat& format) {
  const double end = power_of_two(format.end_exponent);
  if (!(absolute(x) < end)) {
    return is_finite(x) ? (x < 0 ? -infinity() : infinity()) : x;
  }
  const int last_place = exponent_field(x) - kExponentBias - format.precision + 1;
  const int exponent = last_place > format.unit_exponent ? last_place : format.unit_exponent;
  // Within [2^52, 2^53) units the last place of a double is the unit.
  const double shifter = mul_rn(1.5 * 0x1p+52, power_of_two(exponent));
  const double rounded = sub_rn(add_rn(x, shifter), shifter);  // rounded to units, then exact
  if (absolute(rounded) >= end) {
    return x < 0 ? -infinity() : infinity();
  }
  return add_rn(rounded, 0.0);  // -0 to +0
}

}  // namespace korvex::arithmetic
