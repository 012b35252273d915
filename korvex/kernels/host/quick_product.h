// SPDX-License-Identifier: Apache-2.0
// The product of all elements as two canonical limbs by numbers of three words, where these decide
// both.
//
// Each factor is brought to m 2^e with m in [2^63, 2^64). A running product of three words is
// multiplied by m and loses its lowest word: less than one unit of what is left. It loses at most
// one leading bit a factor, so with kFactors factors before its leading zeros are shifted out it is
// never below 2^(191 - kFactors), and a loss is below one part in 2^(191 - kFactors). Of n factors,
// and the joining of some running products, less than (n + 2^10) 2^-159 of the product is lost.
// Both limbs are monotonic in the product (element_product.h), so where both ends of that interval
// give the same two they are those of the product.
//
// Factors that are not normal numbers, rare ones, go into a FastProduct beside it.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/element_product.h"

namespace korvex::host {

// word[0] + word[1] 2^64 + word[2] 2^128, times 2^exponent; the leading bit is set after settle().
struct ThreeWords {
  std::uint64_t word[3] = {0, 0, std::uint64_t{1} << 63};
  std::int64_t exponent = -191;

  // Times factor, cut to three words. The exponent is the caller's to count: 64 more.
  KORVEX_INLINE void multiply(std::uint64_t factor) {
    std::uint64_t carry = arithmetic::multiply_high(word[0], factor);
    word[0] = arithmetic::multiply_word(word[1], factor, carry);
    word[1] = arithmetic::multiply_word(word[2], factor, carry);
    word[2] = carry;
  }

  // Shifts out leading zeros. Precondition: fewer than 64, and not all.
  KORVEX_INLINE void settle() {
    const int count = arithmetic::leading_zeros(word[2]);
    if (count != 0) {
      word[2] = (word[2] << count) | (word[1] >> (64 - count));
      word[1] = (word[1] << count) | (word[0] >> (64 - count));
      word[0] <<= count;
      exponent -= count;
    }
  }

  // Precondition: both are settled. Loses less than one unit.
  KORVEX_COLD void multiply(const ThreeWords& other) {
    std::uint64_t product[6] = {};
    arithmetic::multiply_columns(word, 3, other.word, 3, {0, 0, 6}, product);
    for (int i = 0; i < 3; ++i) {
      word[i] = product[i + 3];
    }
    exponent += other.exponent + 192;
    settle();
  }
};

class QuickProduct {
 public:
  static constexpr std::int64_t kMostFactors = std::int64_t{1} << 40;

  KORVEX_COLD void add_range(const double* x, std::int64_t n) {
    std::int64_t i = 0;
    for (; i + kFactors * kStreams <= n; i += kFactors * kStreams) {
      multiply_all<kStreams>(x + i, kFactors, product_);
    }
    for (; i < n; i += kFactors) {
      multiply_all<1>(x + i, n - i < kFactors ? n - i : kFactors, product_);
    }
    factors_ += n;
  }

  KORVEX_COLD void add(const QuickProduct& other) {
    for (int stream = 0; stream < kStreams; ++stream) {
      product_[0].multiply(other.product_[stream]);
    }
    rest_.add(other.rest_);
    is_negative_ = is_negative_ != other.is_negative_;
    factors_ += other.factors_;
    parts_ += other.parts_;
  }

  // Writes both limbs; false, with nothing known, where the interval does not decide them.
  // Precondition: what was added came from other objects of this kind.
  KORVEX_COLD bool write_limbs(double* out, double* out_err) const {
    arithmetic::FastProduct rest = rest_;
    rest.is_negative = rest.is_negative != is_negative_;
    if (rest.write_special(out, out_err)) {
      return true;
    }
    if (rest.magnitude.dropped != 0 || factors_ >= kMostFactors || parts_ >= kMostParts) {
      return false;
    }
    ThreeWords product = product_[0];
    multiply_exact_words(rest.magnitude, product);
    double lower[2];
    double upper[2];
    arithmetic::ProductWorkspace<3> work;
    round_limbs(product, 0, work, lower);
    round_limbs(product, static_cast<std::uint64_t>(factors_ + 1024), work, upper);
    out[0] = arithmetic::with_sign(lower[0], rest.is_negative);
    out_err[0] = arithmetic::with_sign(lower[1], rest.is_negative);
    return lower[0] == upper[0] && lower[1] == upper[1];
  }

 private:
  static constexpr int kStreams = 2;  // of dependent multiplications, side by side
  static constexpr std::int64_t kFactors = 32;
  static constexpr std::int64_t kMostParts = 100;  // of three products each, and a rest

  // x[0] to x[kCount * steps - 1] into the first kCount products.
  template <int kCount>
  KORVEX_INLINE void multiply_all(const double* x, std::int64_t steps, ThreeWords* products) {
    ThreeWords own[kCount];
    std::int64_t fields = 0;
    std::uint64_t signs = 0;
    for (int stream = 0; stream < kCount; ++stream) {
      own[stream] = products[stream];
    }
    for (std::int64_t i = 0; i < steps; ++i) {
#pragma GCC unroll 2
      for (int stream = 0; stream < kCount; ++stream) {
        const double factor = x[i * kCount + stream];
        const std::uint64_t bits = arithmetic::to_bits(factor);
        const auto field = static_cast<std::int64_t>(bits << 1 >> (arithmetic::kFractionBits + 1));
        if (field == 0 || field == 2047) [[unlikely]] {
          rest_.multiply(factor);
          fields += arithmetic::kExponentBias;  // of the factor 1 in its place
          own[stream].multiply(arithmetic::kSignBit);
          continue;
        }
        signs ^= bits;
        fields += field;
        own[stream].multiply(bits << 11 | arithmetic::kSignBit);
      }
    }
    for (int stream = 0; stream < kCount; ++stream) {
      own[stream].settle();
      products[stream] = own[stream];
    }
    // A factor is bits * 2^(field - bias - 63), and the word that was dropped counts 2^64.
    products[0].exponent += fields + kCount * steps * (1 - arithmetic::kExponentBias);
    is_negative_ = is_negative_ != ((signs & arithmetic::kSignBit) != 0);
  }

  // Precondition: the product is settled; it is so again afterwards.
  KORVEX_COLD static void multiply_exact_words(
      const arithmetic::TruncatedFloat<arithmetic::kFastProductWords>& factor,
      ThreeWords& product) {
    constexpr int kLast = arithmetic::kFastProductWords - 1;
    ThreeWords leading;
    const int highest = arithmetic::highest_bit(factor);
    for (int i = 0; i < 3; ++i) {
      leading.word[i] = arithmetic::bits_from(factor, highest - 191 + 64 * i);
    }
    static_assert(kLast >= 2);
    leading.exponent = factor.exponent + highest - 191;  // cut, by less than one unit
    product.multiply(leading);
  }

  // The limbs of the product with (lost << 32) units more.
  KORVEX_COLD static void round_limbs(const ThreeWords& product, std::uint64_t lost,
                                      arithmetic::ProductWorkspace<3>& work, double* limbs) {
    std::int64_t clamped = product.exponent;
    clamped = clamped > arithmetic::kExponentClamp ? arithmetic::kExponentClamp : clamped;
    clamped = clamped < -arithmetic::kExponentClamp ? -arithmetic::kExponentClamp : clamped;
    arithmetic::shift_down(
        arithmetic::Natural<3>{{product.word[0], product.word[1], product.word[2]}}, 0, work.bits);
    arithmetic::shift_down(arithmetic::Natural<1>{{lost}}, -kLostUnit, work.rest);
    arithmetic::add(work.bits, work.rest, work.bits);
    arithmetic::round_to_two_limbs(work, static_cast<int>(clamped), limbs);
  }

  // n losses of 2^-159 of a product below 2^192 units are n 2^33 of these; one bit for losses of
  // losses, and for cutting.
  static constexpr int kLostUnit = 34;

  ThreeWords product_[kStreams];
  arithmetic::FastProduct rest_;  // of factors that are not normal numbers
  bool is_negative_ = false;
  std::int64_t factors_ = 0;
  int parts_ = 1;
};

}  // namespace korvex::host
