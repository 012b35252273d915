// SPDX-License-Identifier: Apache-2.0
// A positive binary floating-point number of a few words, for long products: it grows until its
// words are full, then drops the lowest word each time and counts how often that lost something.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"

namespace korvex::arithmetic {

// The sum of word[i] * 2^(64 i + exponent); never more than the exact product.
template <int kWordCount>
struct TruncatedFloat {
  static constexpr int kWords = kWordCount;

  std::uint64_t word[kWords];  // beyond size, anything
  int size = 1;                // words in use, 1 to kWords; the last of them is not 0
  std::int64_t exponent = 0;   // of the lowest bit of word[0]
  // How often a word that was not 0 was dropped. Each time the number lost less than one part in
  // 2^(64 (kWords - 1)).
  std::int64_t dropped = 0;

  KORVEX_INLINE TruncatedFloat() { word[0] = 1; }

  KORVEX_HD std::uint64_t at(int index) const {
    // NOLINTNEXTLINE(clang-analyzer-security.ArrayBound): no index is negative
    return index < kWords && index < size ? word[index] : 0;
  }

  // Precondition: x is finite and not 0.
  KORVEX_INLINE void multiply(double x) {
    const std::uint64_t bits = significand(x);
    const int zeros = trailing_zeros(bits);
    exponent += kUnitExponent + shift(x) + zeros;
    multiply_by_word(bits >> zeros);
  }

  KORVEX_COLD void multiply(const TruncatedFloat& other) {
    std::uint64_t product[2 * kWords] = {};
    int count = size + other.size;
    multiply_columns(word, size, other.word, other.size, {0, 0, count}, product);
    // NOLINTNEXTLINE(clang-analyzer-security.ArrayBound): 2 <= count <= 2 * kWords
    count -= product[count - 1] == 0 ? 1 : 0;
    const int excess = count > kWords ? count - kWords : 0;
    bool has_loss = false;
    for (int i = 0; i < excess; ++i) {
      has_loss = has_loss || product[i] != 0;
    }
    for (int i = excess; i < count; ++i) {
      word[i - excess] = product[i];
    }
    size = count - excess;
    exponent += other.exponent + std::int64_t{64} * excess;
    dropped += other.dropped + (has_loss ? 1 : 0);
  }

 private:
  KORVEX_INLINE void multiply_by_word(std::uint64_t factor) {
    if (factor == 1) {
      return;
    }
    std::uint64_t carry = 0;
    for (int i = 0; i < size; ++i) {
      word[i] = multiply_word(word[i], factor, carry);
    }
    if (carry == 0) {
      return;
    }
    if (size == kWords) {
      drop_lowest_word();
    }
    word[size] = carry;
    ++size;
  }

  KORVEX_INLINE void drop_lowest_word() {
    dropped += word[0] != 0 ? 1 : 0;
    for (int i = 1; i < kWords; ++i) {
      word[i - 1] = word[i];
    }
    --size;
    exponent += 64;
  }
};

}  // namespace korvex::arithmetic
