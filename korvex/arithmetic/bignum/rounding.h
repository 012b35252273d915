// SPDX-License-Identifier: Apache-2.0
// Reading the bits of a big number, and its one rounding to a double.
//
// A number here is any type whose value is the sum of at(i) * 2^(64 i), with at(i) == 0 from kWords
// on: Natural, TruncatedFloat, and a settled FixedPoint. All is exact but for nearest().
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// Position of the highest bit that is set; -1 for zero.
template <class Number>
KORVEX_HD int highest_bit(const Number& x) {
  for (int i = Number::kWords - 1; i >= 0; --i) {
    const std::uint64_t word = x.at(i);
    if (word != 0) {
      return 64 * i + 63 - leading_zeros(word);
    }
  }
  return -1;
}

// The low 64 bits of floor(x / 2^position); a negative position multiplies.
template <class Number>
KORVEX_HD std::uint64_t bits_from(const Number& x, int position) {
  if (position < 0) {
    return position <= -64 ? 0 : x.at(0) << -position;
  }
  const int index = position >> 6;
  const int offset = position & 63;
  // A shift by 64 is not defined, so the upper part goes in two steps.
  return (x.at(index) >> offset) | (x.at(index + 1) << 1) << (63 - offset);
}

template <class Number>
KORVEX_HD bool bit_at(const Number& x, int position) {
  return (bits_from(x, position) & 1) != 0;
}

// Words of zeros below the lowest bit that is set; all where there is none.
template <class Number>
KORVEX_HD int zero_words(const Number& x) {
  int count = 0;
  while (count < Number::kWords && x.at(count) == 0) {
    ++count;
  }
  return count;
}

// Whether x is no multiple of 2^position.
template <class Number>
KORVEX_HD bool any_below(const Number& x, int position) {
  if (position <= 0) {
    return false;
  }
  const int index = position >> 6;
  std::uint64_t bits = x.at(index) & ((std::uint64_t{1} << (position & 63)) - 1);
  for (int i = index - 1; bits == 0 && i >= 0; --i) {
    bits = x.at(i);
  }
  return bits != 0;
}

// Position of the last bit that a double keeps of a number with this highest bit, times 2^exponent.
KORVEX_HD inline int last_kept_bit(int highest, int exponent) {
  const int of_normal = highest - kFractionBits;
  const int of_subnormal = kUnitExponent - exponent;
  return of_normal > of_subnormal ? of_normal : of_subnormal;
}

// RN((x + t) * 2^exponent), ties to even, an infinity where that overflows; 0 < t < 1 where
// has_more, else t = 0. Precondition where has_more: the bit of half a gap is not below x.
//
// Encodings count: m * 2^(s - 1074), with m of exactly 53 bits, or s = 0 and m of fewer, is encoded
// as m + s * 2^52, also where rounding carries m over to 2^53, into the infinity included.
template <class Number>
KORVEX_COLD double nearest(const Number& x, int exponent, bool has_more) {
  const int highest = highest_bit(x);
  if (highest < 0) {
    return 0.0;
  }
  const int last = last_kept_bit(highest, exponent);
  const int field = last + exponent - kUnitExponent;
  if (field >= 2046) {
    return infinity();
  }
  const std::uint64_t kept_and_half = bits_from(x, last - 1);
  const std::uint64_t kept = kept_and_half >> 1;
  const bool is_half_set = (kept_and_half & 1) != 0;
  const bool is_up = is_half_set && ((kept & 1) != 0 || has_more || any_below(x, last - 1));
  return from_bits(exponent_bits(field) + kept + (is_up ? 1 : 0));
}

// The same rounded to odd, for formats that have fewer bits: where something is left, the last bit
// is set. Precondition where has_more: the last bit that a double keeps is not below x.
template <class Number>
KORVEX_COLD double nearest_odd(const Number& x, int exponent, bool has_more) {
  const int highest = highest_bit(x);
  if (highest < 0) {
    return 0.0;
  }
  const int last = last_kept_bit(highest, exponent);
  const int field = last + exponent - kUnitExponent;
  if (field >= 2046) {
    return infinity();
  }
  const std::uint64_t kept = bits_from(x, last) | (has_more || any_below(x, last) ? 1 : 0);
  return from_bits(exponent_bits(field) + kept);
}

// magnitude or its negative; zero is +0 for both.
KORVEX_HD inline double with_sign(double magnitude, bool is_negative) {
  return is_negative && magnitude != 0 ? -magnitude : magnitude;
}

}  // namespace korvex::arithmetic
