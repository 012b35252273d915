// SPDX-License-Identifier: Apache-2.0
// Non-negative fixed-point numbers of many words, for the accurate phases of the elementary
// functions.
//
// A Fixed<W> holds sum of word[i] * 2^(64 (i - W + 1)): the last word is the integer part, and one
// unit is 2^(-64 (W - 1)). Products, quotients and shifts round down by less than one unit (a
// product by less than W units); sums and differences are exact.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

template <int W>
struct Fixed {
  std::uint64_t word[W] = {};
};

// 2^shift times a 64-bit integer, rounded down; shift may be negative. Precondition: it fits.
template <int W>
KORVEX_HD Fixed<W> fixed_from(std::uint64_t value, int shift) {
  Fixed<W> result;
  const int position = 64 * (W - 1) + shift;  // of the lowest bit of value, in units
  if (position <= -64) {
    return result;
  }
  if (position < 0) {
    result.word[0] = value >> -position;
    return result;
  }
  const int index = position / 64;
  const int offset = position % 64;
  result.word[index] = value << offset;
  if (offset != 0 && index + 1 < W) {
    result.word[index + 1] = value >> (64 - offset);
  }
  return result;
}

template <int W>
KORVEX_HD Fixed<W> operator+(const Fixed<W>& a, const Fixed<W>& b) {
  Fixed<W> sum;
  std::uint64_t carry = 0;
  for (int i = 0; i < W; ++i) {
    const std::uint64_t partial = a.word[i] + carry;
    carry = partial < carry ? 1 : 0;
    sum.word[i] = partial + b.word[i];
    carry += sum.word[i] < partial ? 1 : 0;
  }
  return sum;
}

// Precondition: a >= b.
template <int W>
KORVEX_HD Fixed<W> operator-(const Fixed<W>& a, const Fixed<W>& b) {
  Fixed<W> difference;
  std::uint64_t borrow = 0;
  for (int i = 0; i < W; ++i) {
    const std::uint64_t partial = a.word[i] - b.word[i];
    const std::uint64_t below = a.word[i] < b.word[i] ? 1 : 0;
    difference.word[i] = partial - borrow;
    borrow = below + (partial < borrow ? 1 : 0);
  }
  return difference;
}

template <int W>
KORVEX_HD bool operator<(const Fixed<W>& a, const Fixed<W>& b) {
  for (int i = W - 1; i > 0; --i) {
    if (a.word[i] != b.word[i]) {
      return a.word[i] < b.word[i];
    }
  }
  return a.word[0] < b.word[0];
}

template <int W>
KORVEX_HD bool is_zero(const Fixed<W>& a) {
  std::uint64_t any = 0;
  for (int i = 0; i < W; ++i) {
    any |= a.word[i];
  }
  return any == 0;
}

template <int W>
KORVEX_HD Fixed<W> shifted_down(const Fixed<W>& a, int shift) {
  Fixed<W> result;
  const int words = shift / 64;
  const int bits = shift % 64;
  for (int i = 0; i + words < W; ++i) {
    result.word[i] = a.word[i + words] >> bits;
    if (bits != 0 && i + words + 1 < W) {
      result.word[i] |= a.word[i + words + 1] << (64 - bits);
    }
  }
  return result;
}

// Precondition: 0 <= shift < 64, and the value still fits.
template <int W>
KORVEX_HD Fixed<W> shifted_up(const Fixed<W>& a, int shift) {
  Fixed<W> result = a;
  if (shift == 0) {
    return result;
  }
  for (int i = W - 1; i >= 0; --i) {
    result.word[i] = (a.word[i] << shift) | (i > 0 ? a.word[i - 1] >> (64 - shift) : 0);
  }
  return result;
}

// Adds a * b to the three words (low, middle, high).
KORVEX_INLINE void add_product(std::uint64_t a, std::uint64_t b, std::uint64_t& low,
                               std::uint64_t& middle, std::uint64_t& high) {
  const std::uint64_t product_low = a * b;
  std::uint64_t product_high = multiply_high(a, b);
  low += product_low;
  product_high += low < product_low ? 1 : 0;  // at most 2^64 - 2 before: no overflow
  middle += product_high;
  high += middle < product_high ? 1 : 0;
}

// Columns below the units are left out but for the one next to them: fewer than W units too small.
template <int W>
KORVEX_COLD Fixed<W> operator*(const Fixed<W>& a, const Fixed<W>& b) {
  Fixed<W> result;
  std::uint64_t low = 0, middle = 0, high = 0;
  for (int column = W - 2; column < 2 * W - 1; ++column) {
    for (int i = column < W ? 0 : column - W + 1; i < W && i <= column; ++i) {
      add_product(a.word[i], b.word[column - i], low, middle, high);
    }
    if (column >= W - 1) {
      result.word[column - W + 1] = low;
    }
    low = middle;
    middle = high;
    high = 0;
  }
  return result;
}

// Exact but for overflow of the integer word, which must not happen.
template <int W>
KORVEX_HD Fixed<W> times(const Fixed<W>& a, std::uint64_t factor) {
  Fixed<W> result;
  std::uint64_t carry = 0;
  for (int i = 0; i < W; ++i) {
    const std::uint64_t product_low = a.word[i] * factor;
    result.word[i] = product_low + carry;
    carry = multiply_high(a.word[i], factor) + (result.word[i] < product_low ? 1 : 0);
  }
  return result;
}

// Precondition: 0 < divisor < 2^32.
template <int W>
KORVEX_HD Fixed<W> divided(const Fixed<W>& a, std::uint64_t divisor) {
  Fixed<W> quotient;
  std::uint64_t rest = 0;
  for (int i = W - 1; i >= 0; --i) {
    const std::uint64_t upper = (rest << 32) | (a.word[i] >> 32);
    const std::uint64_t lower = ((upper % divisor) << 32) | (a.word[i] & 0xffffffffu);
    quotient.word[i] = ((upper / divisor) << 32) | (lower / divisor);
    rest = lower % divisor;
  }
  return quotient;
}

// a / b by long division, one bit at a time. Precondition: a < 2 b, b >= 1/2, both below 2^62.
template <int W>
KORVEX_COLD Fixed<W> quotient(Fixed<W> a, const Fixed<W>& b) {
  Fixed<W> result;
  for (int bit = 64 * (W - 1); bit >= 0; --bit) {
    if (!(a < b)) {
      a = a - b;
      result.word[bit / 64] |= std::uint64_t{1} << (bit % 64);
    }
    a = shifted_up(a, 1);
  }
  return result;
}

// Position of the highest set bit in units; -1 for zero.
template <int W>
KORVEX_HD int highest_bit(const Fixed<W>& a) {
  for (int i = W - 1; i >= 0; --i) {
    if (a.word[i] != 0) {
      return 64 * i + 63 - leading_zeros(a.word[i]);
    }
  }
  return -1;
}

// 64 bits of a from a position in units on; positions may lie outside.
template <int W>
KORVEX_HD std::uint64_t bits_from(const Fixed<W>& a, int position) {
  if (position < 0) {
    return position <= -64 ? 0 : a.word[0] << -position;
  }
  const int index = position / 64;
  const int offset = position % 64;
  if (index >= W) {
    return 0;
  }
  std::uint64_t bits = a.word[index] >> offset;
  if (offset != 0 && index + 1 < W) {
    bits |= a.word[index + 1] << (64 - offset);
  }
  return bits;
}

template <class Real>
struct RoundedOf {
  Real value;
  typename Companions<Real>::Flag decided;  // whether the rounding is that of the exact value
};
using Rounded = RoundedOf<double>;

// RN(a * 2^exponent), for a known to 2^uncertain_bits units on either side. Undecided where a
// midpoint of two doubles lies that near. Precondition: a > 0, the result does not overflow.
template <int W>
KORVEX_COLD Rounded rounded(const Fixed<W>& a, int exponent, int uncertain_bits) {
  const int top = highest_bit(a);
  const int unit_exponent = exponent - 64 * (W - 1);  // a counts units of 2^unit_exponent
  int last = top - kFractionBits;                     // position of the last bit kept
  if (last + unit_exponent < kUnitExponent) {
    last = kUnitExponent - unit_exponent;
  }
  const std::uint64_t kept = last > top ? 0 : bits_from(a, last);
  const bool half = last >= 1 && last - 1 <= top && (bits_from(a, last - 1) & 1) != 0;
  // Below the half bit, down to the uncertain ones: all zeros or all ones is too near a midpoint.
  bool all_zero = true;
  bool all_one = true;
  for (int position = last - 2; position > uncertain_bits; --position) {
    const bool bit = position <= top && (bits_from(a, position) & 1) != 0;
    all_zero = all_zero && !bit;
    all_one = all_one && bit;
    if (!all_zero && !all_one) {
      break;
    }
  }
  const bool decided = last - 2 > uncertain_bits && !(half ? all_zero : all_one);
  const std::uint64_t significand = kept + (half ? 1 : 0);
  // Encodings count: m * 2^(s - 1074) is m + s * 2^52, also where rounding carried m over.
  const int shift_count = last + unit_exponent - kUnitExponent;
  const std::uint64_t encoding =
      significand + (static_cast<std::uint64_t>(shift_count) << kFractionBits);
  return {from_bits(encoding), decided};
}

}  // namespace korvex::arithmetic
