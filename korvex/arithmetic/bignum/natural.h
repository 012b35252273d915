// SPDX-License-Identifier: Apache-2.0
// Natural numbers of a fixed count of 64-bit words: sum, difference, order, shifts, products,
// quotient by a word, square root.
//
// All is exact. Where a result lies elsewhere than its operands it is the last argument, so that a
// large number on a device can stay in static memory; it may be one of the operands unless that is
// excluded. The operators return a copy and are for a few words.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/rounding.h"

namespace korvex::arithmetic {

// Without a constructor, for static memory of a device: Natural<W>{} is 0.
template <int kWordCount>
struct Natural {
  static constexpr int kWords = kWordCount;
  std::uint64_t word[kWords];  // the value is the sum of word[i] * 2^(64 i)

  KORVEX_HD std::uint64_t at(int index) const {
    // No caller passes a negative index; the analyzer does not see it.
    return index < kWords ? word[index] : 0;  // NOLINT(clang-analyzer-security.ArrayBound)
  }

  // Words in use: all from there on are 0.
  KORVEX_HD int size() const {
    int count = kWords;
    while (count > 0 && word[count - 1] == 0) {
      --count;
    }
    return count;
  }
};

template <int W>
KORVEX_HD bool is_zero(const Natural<W>& a) {
  std::uint64_t any = 0;
  KORVEX_UNROLL_WORDS
  for (int i = 0; i < W; ++i) {
    any |= a.word[i];
  }
  return any == 0;
}

template <int W>
KORVEX_HD bool operator<(const Natural<W>& a, const Natural<W>& b) {
  KORVEX_UNROLL_WORDS
  for (int i = W - 1; i > 0; --i) {
    if (a.word[i] != b.word[i]) {
      return a.word[i] < b.word[i];
    }
  }
  return a.word[0] < b.word[0];
}

// ---- sum and difference ----

// a + b modulo 2^(64 W).
template <int W>
KORVEX_HD void add(const Natural<W>& a, const Natural<W>& b, Natural<W>& sum) {
  std::uint64_t carry = 0;
  KORVEX_UNROLL_WORDS
  for (int i = 0; i < W; ++i) {
    const std::uint64_t addend = b.word[i];
    const std::uint64_t partial = a.word[i] + carry;
    carry = partial < carry ? 1 : 0;
    sum.word[i] = partial + addend;
    carry += sum.word[i] < partial ? 1 : 0;
  }
}

// a - b modulo 2^(64 W).
template <int W>
KORVEX_HD void subtract(const Natural<W>& a, const Natural<W>& b, Natural<W>& difference) {
  std::uint64_t borrow = 0;
  KORVEX_UNROLL_WORDS
  for (int i = 0; i < W; ++i) {
    const std::uint64_t partial = a.word[i] - b.word[i];
    const std::uint64_t below = a.word[i] < b.word[i] ? 1 : 0;
    difference.word[i] = partial - borrow;
    borrow = below + (partial < borrow ? 1 : 0);
  }
}

template <int W>
KORVEX_HD Natural<W> operator+(const Natural<W>& a, const Natural<W>& b) {
  Natural<W> sum;
  add(a, b, sum);
  return sum;
}

// Precondition: a >= b.
template <int W>
KORVEX_HD Natural<W> operator-(const Natural<W>& a, const Natural<W>& b) {
  Natural<W> difference;
  subtract(a, b, difference);
  return difference;
}

// ---- shifts ----

// floor(x / 2^position) for any number with bits to read; a negative position multiplies. Bits
// beyond the result are lost. The result may be x where position >= 0.
template <class Number, int W>
KORVEX_HD void shift_down(const Number& x, int position, Natural<W>& result) {
  KORVEX_UNROLL_WORDS
  for (int i = 0; i < W; ++i) {
    result.word[i] = bits_from(x, position + 64 * i);
  }
}

template <int W, class Number>
KORVEX_HD Natural<W> shifted_down(const Number& x, int position) {
  Natural<W> result;
  shift_down(x, position, result);
  return result;
}

// a * 2^count in place, but for the bits beyond the last word. Precondition: 0 < count < 64.
template <int W>
KORVEX_HD void shift_up(Natural<W>& a, int count) {
  KORVEX_UNROLL_WORDS
  for (int i = W - 1; i > 0; --i) {
    a.word[i] = (a.word[i] << count) | (a.word[i - 1] >> (64 - count));
  }
  a.word[0] <<= count;
}

// ---- products ----

// The low word of a * b + carry; carry becomes the high word, at most 2^64 - 1.
KORVEX_INLINE std::uint64_t multiply_word(std::uint64_t a, std::uint64_t b, std::uint64_t& carry) {
  const std::uint64_t low = a * b + carry;
  carry = multiply_high(a, b) + (low < carry ? 1 : 0);
  return low;
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

// The words `from` to `end` - 1 of a product, column by column (Comba 1990), leaving out what
// columns before `first` would carry. Precondition: first <= from, fewer than 2^63 words.
struct ProductColumns {
  int first;
  int from;
  int end;
};
KORVEX_INLINE void multiply_columns(const std::uint64_t* a, int a_count, const std::uint64_t* b,
                                    int b_count, const ProductColumns& columns,
                                    std::uint64_t* product) {
  std::uint64_t low = 0, middle = 0, high = 0;
  for (int column = columns.first; column < columns.end; ++column) {
    for (int i = column < b_count ? 0 : column - b_count + 1; i < a_count && i <= column; ++i) {
      add_product(a[i], b[column - i], low, middle, high);
    }
    if (column >= columns.from) {
      product[column - columns.from] = low;
    }
    low = middle;
    middle = high;
    high = 0;
  }
}

// a^2. Precondition: it fits the result.
template <int W, int R>
KORVEX_COLD void square(const Natural<W>& a, Natural<R>& result) {
  const int count = a.size();
  multiply_columns(a.word, count, a.word, count, {0, 0, 2 * count}, result.word);
  for (int i = 2 * count; i < R; ++i) {
    result.word[i] = 0;
  }
}

// a * factor modulo 2^(64 R).
template <int W, int R>
KORVEX_HD void multiply(const Natural<W>& a, std::uint64_t factor, Natural<R>& product) {
  static_assert(R >= W);
  std::uint64_t carry = 0;
  KORVEX_UNROLL_WORDS
  for (int i = 0; i < W; ++i) {
    product.word[i] = multiply_word(a.word[i], factor, carry);
  }
  for (int i = W; i < R; ++i) {
    product.word[i] = carry;
    carry = 0;
  }
}

template <int W>
KORVEX_HD Natural<W> operator*(const Natural<W>& a, std::uint64_t factor) {
  Natural<W> product;
  multiply(a, factor, product);
  return product;
}

// ---- quotient ----

// word and rest * 2^64 before it, divided: the quotient; rest becomes the remainder. Precondition:
// rest < divisor.
KORVEX_HD inline std::uint64_t divide_word(std::uint64_t word, std::uint32_t divisor,
                                           std::uint64_t& rest) {
  const std::uint64_t upper = (rest << 32) | (word >> 32);
  const std::uint64_t lower = ((upper % divisor) << 32) | (word & 0xffffffffu);
  rest = lower % divisor;
  return ((upper / divisor) << 32) | (lower / divisor);
}

// The same bit by bit. Precondition: rest < divisor < 2^63.
KORVEX_HD inline std::uint64_t divide_word_by_bits(std::uint64_t word, std::uint64_t divisor,
                                                   std::uint64_t& rest) {
  std::uint64_t quotient = 0;
  for (int bit = 63; bit >= 0; --bit) {
    rest = rest << 1 | ((word >> bit) & 1);  // below 2^64, as rest < divisor < 2^63
    quotient <<= 1;
    if (rest >= divisor) {
      rest -= divisor;
      quotient |= 1;
    }
  }
  return quotient;
}

// floor(a / divisor). Precondition: divisor > 0.
template <int W>
KORVEX_HD Natural<W> operator/(const Natural<W>& a, std::uint32_t divisor) {
  Natural<W> quotient;
  std::uint64_t rest = 0;
  for (int i = W - 1; i >= 0; --i) {
    quotient.word[i] = divide_word(a.word[i], divisor, rest);
  }
  return quotient;
}

// Becomes the quotient rounded down; true where there is a remainder. Precondition: 0 < divisor <
// 2^63.
template <int W>
KORVEX_COLD bool divide(Natural<W>& a, std::uint64_t divisor) {
  const bool is_short = divisor >> 32 == 0;
  std::uint64_t rest = 0;
  for (int i = a.size() - 1; i >= 0; --i) {
    a.word[i] = is_short ? divide_word(a.word[i], static_cast<std::uint32_t>(divisor), rest)
                         : divide_word_by_bits(a.word[i], divisor, rest);
  }
  return rest != 0;
}

// ---- square root ----

// floor(sqrt(x / 2^lowest)), digit by digit in base 2; true where that is exact for the bits of x
// from `lowest` on, which may be negative. Preconditions: lowest is even, the root is below
// 2^(64 W - 3) and is not x.
template <class Number, int W>
KORVEX_COLD bool square_root(const Number& x, int lowest, Natural<W>& root) {
  Natural<W> rest{};         // the bits of x that were read minus root^2; at most 2 * root
  Natural<W>& twice = root;  // 2 * root, to the end
  twice = {};
  for (int position = highest_bit(x) & ~1; position >= lowest; position -= 2) {
    shift_up(rest, 2);
    rest.word[0] |= position < 0 ? 0 : (x.at(position >> 6) >> (position & 63)) & 3;
    shift_up(twice, 1);
    twice.word[0] |= 1;  // 4 * root + 1 is what a digit 1 takes from the rest
    if (rest < twice) {
      twice.word[0] -= 1;
    } else {
      subtract(rest, twice, rest);
      twice.word[0] += 1;
    }
  }
  shift_down(twice, 1, root);
  return is_zero(rest);
}

}  // namespace korvex::arithmetic
