// SPDX-License-Identifier: Apache-2.0
// Natural numbers as plain arrays of 32-bit words, lowest word first, and their rounding to a
// double: what reductions need once their sums are exact integers.
//
// All is exact but for the one rounding at the end, and nothing here is fast: it runs a few times a
// reduction, not once an element.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// The leading bits of a positive number: (bits + t) * 2^exponent, the top bit of bits set, 0 <= t <
// 1, and t > 0 exactly where has_more.
struct LeadingBits {
  std::uint64_t bits;
  int exponent;
  bool has_more;
};

// The nearest double, ties to even, an infinity where that overflows. The encoding of m * 2^(-1074
// + s), m with exactly 53 bits, or s = 0 and m with fewer, is m + s * 2^52.
KORVEX_COLD inline double nearest_double(const LeadingBits& x) {
  const int wanted = x.exponent + 63 - kFractionBits;  // exponent of the lowest bit that is kept
  const int lowest = wanted < kUnitExponent ? kUnitExponent : wanted;
  const int dropped = lowest - x.exponent;  // at least 11
  if (dropped > 64) {
    return 0.0;  // less than half of 2^-1074
  }
  const std::uint64_t kept = dropped == 64 ? 0 : x.bits >> dropped;
  const std::uint64_t half = std::uint64_t{1} << (dropped - 1);
  const bool is_beyond_half = x.has_more || (x.bits & (half - 1)) != 0;
  const bool is_up = (x.bits & half) != 0 && (is_beyond_half || (kept & 1) != 0);
  const int field = lowest - kUnitExponent;
  if (field >= 2046) {
    return infinity();
  }
  return from_bits((static_cast<std::uint64_t>(field) << kFractionBits) + kept + (is_up ? 1 : 0));
}

// magnitude or its negative; zero is +0 for both.
KORVEX_HD inline double with_sign(double magnitude, bool is_negative) {
  return is_negative && magnitude != 0 ? -magnitude : magnitude;
}

template <int kWordCount>
struct Natural {
  static constexpr int kWords = kWordCount;
  std::uint32_t word[kWords];

  KORVEX_COLD void clear() {
    for (int i = 0; i < kWords; ++i) {
      word[i] = 0;
    }
  }

  // Words in use: all from there on are 0.
  KORVEX_HD int size() const {
    int count = kWords;
    while (count > 0 && word[count - 1] == 0) {
      --count;
    }
    return count;
  }

  // Adds other * factor * 2^(32 * place). Precondition: it fits.
  template <class Other>
  KORVEX_COLD void add_multiple(const Other& other, std::uint32_t factor, int place) {
    std::uint64_t carry = 0;
    const int count = other.size();
    for (int i = place; i < kWords && (i < place + count || carry != 0); ++i) {
      const std::uint64_t product =
          i < place + count ? std::uint64_t{other.word[i - place]} * factor : 0;
      carry += product + word[i];  // at most (2^32 - 1)^2 + 2 (2^32 - 1)
      word[i] = static_cast<std::uint32_t>(carry);
      carry >>= 32;
    }
  }

  // Precondition: other is not larger.
  KORVEX_COLD void subtract(const Natural& other) {
    std::int64_t borrow = 0;
    for (int i = 0; i < kWords; ++i) {
      const std::int64_t difference = std::int64_t{word[i]} - other.word[i] + borrow;
      word[i] = static_cast<std::uint32_t>(difference);
      borrow = difference < 0 ? -1 : 0;
    }
  }

  // Becomes other - this. Precondition: other is not smaller.
  KORVEX_COLD void subtract_from(const Natural& other) {
    std::int64_t borrow = 0;
    for (int i = 0; i < kWords; ++i) {
      const std::int64_t difference = std::int64_t{other.word[i]} - word[i] + borrow;
      word[i] = static_cast<std::uint32_t>(difference);
      borrow = difference < 0 ? -1 : 0;
    }
  }

  // Adds count * 2^(32 * place). Precondition: it fits.
  KORVEX_COLD void add_word(int place, std::uint64_t count) {
    for (int i = place; i < kWords && count != 0; ++i) {
      count += word[i];
      word[i] = static_cast<std::uint32_t>(count);
      count >>= 32;
    }
  }

  KORVEX_HD bool is_less(const Natural& other) const {
    for (int i = kWords - 1; i > 0; --i) {
      if (word[i] != other.word[i]) {
        return word[i] < other.word[i];
      }
    }
    return word[0] < other.word[0];
  }

  // Becomes the quotient rounded down; true where there is a remainder. Precondition: 0 < divisor <
  // 2^63.
  KORVEX_COLD bool divide(std::uint64_t divisor) {
    std::uint64_t rest = 0;
    for (int i = size() - 1; i >= 0; --i) {
      if (divisor >> 32 == 0) {
        const std::uint64_t two_words = rest << 32 | word[i];
        word[i] = static_cast<std::uint32_t>(two_words / divisor);
        rest = two_words % divisor;
      } else {
        word[i] = quotient_word(word[i], divisor, rest);
      }
    }
    return rest != 0;
  }

  // 64 bits from a position on; positions may lie outside.
  KORVEX_HD std::uint64_t bits_from(int position) const {
    if (position < 0) {
      return position <= -64 ? 0 : bits_from(0) << -position;
    }
    const int index = position >> 5;
    const int offset = position & 31;
    const std::uint64_t low = at(index) | at(index + 1) << 32;
    return (low >> offset) | (at(index + 2) << 1) << (63 - offset);
  }

  KORVEX_HD bool any_below(int position) const {
    std::uint32_t bits = 0;
    for (int i = 0; i < kWords && 32 * i < position; ++i) {
      const int wanted = position - 32 * i;
      bits |= wanted >= 32 ? word[i] : word[i] & ((std::uint32_t{1} << wanted) - 1);
    }
    return bits != 0;
  }

  // Position of the highest bit that is set; -1 for zero.
  KORVEX_HD int top_bit() const {
    const int count = size();
    return count == 0 ? -1 : 32 * (count - 1) + 63 - leading_zeros(word[count - 1]);
  }

  // RN((value + t) * 2^exponent), 0 < t < 1 where has_more, else t = 0. A value of 0 that has more
  // must lie below half of 2^-1074.
  KORVEX_COLD double nearest(int exponent, bool has_more) const {
    const int top = top_bit();
    if (top < 0) {
      return 0.0;
    }
    const int position = top - 63;
    return nearest_double(
        {bits_from(position), exponent + position, has_more || any_below(position)});
  }

 private:
  KORVEX_HD std::uint64_t at(int index) const {
    // No caller passes a negative index; the analyzer does not see it.
    return index < kWords ? std::uint64_t{word[index]} : 0;  // NOLINT
  }

  // The next word of a quotient, bit by bit, for a divisor of more than one word.
  KORVEX_HD static std::uint32_t quotient_word(std::uint32_t next, std::uint64_t divisor,
                                               std::uint64_t& rest) {
    std::uint32_t quotient = 0;
    for (int bit = 31; bit >= 0; --bit) {
      rest = rest << 1 | ((next >> bit) & 1);  // below 2^64, as rest < divisor < 2^63
      quotient <<= 1;
      if (rest >= divisor) {
        rest -= divisor;
        quotient |= 1;
      }
    }
    return quotient;
  }
};

// Adds value^2 to the sum. Precondition: it fits.
template <class Sum, class Value>
KORVEX_COLD void add_square(const Value& value, Sum& sum) {
  const int count = value.size();
  for (int i = 0; i < count; ++i) {
    sum.add_multiple(value, value.word[i], i);
  }
}

}  // namespace korvex::arithmetic
