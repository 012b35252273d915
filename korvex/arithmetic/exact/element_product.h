// SPDX-License-Identifier: Apache-2.0
// The product of all elements as two canonical limbs: l0 = RN(P), l1 = RN(P - l0), P the exact
// product. Nothing overflows or underflows on the way.
//
// Odd parts and exponents are multiplied apart. The odd part is kept in a number of a few words
// that drops its lowest word when it is full and counts how often it did: the exact product then
// lies in a known interval above it. Both limbs are monotonic in P, so where the two ends of the
// interval give the same two limbs, those are the limbs of P. Where they do not, the product is
// taken once more in 4096 bits; what even that cannot decide is the rounding of the lower end.
//
// Which elements were multiplied first changes what is dropped, but not a decided result; and 4096
// bits decide whatever fewer bits in any order do.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"

namespace korvex::arithmetic {

// A positive number, never rounded up: word[0] + word[1] * 2^64 + ..., times 2^exponent.
template <int kWordCount>
struct WideFloat {
  static constexpr int kWords = kWordCount;

  std::uint64_t word[kWords];  // beyond size, anything
  int size = 1;                // words in use; the last of them is not 0
  std::int64_t exponent = 0;   // of the lowest bit of word[0]
  // How often a word that was not 0 was dropped. Each time the number lost less than one part in
  // 2^(64 (kWords - 1)).
  std::int64_t dropped = 0;

  KORVEX_INLINE WideFloat() { word[0] = 1; }

  // Precondition: x is finite and not 0.
  KORVEX_INLINE void multiply(double x) {
    const std::uint64_t bits = significand(x);
    const int zeros = trailing_zeros(bits);
    exponent += kUnitExponent + shift(x) + zeros;
    multiply_words(bits >> zeros);
  }

  KORVEX_COLD void multiply(const WideFloat& other) {
    std::uint64_t product[2 * kWords];
    for (int i = 0; i < 2 * kWords; ++i) {
      product[i] = 0;
    }
    for (int i = 0; i < size; ++i) {
      std::uint64_t carry = 0;
      for (int j = 0; j < other.size; ++j) {
        multiply_add(word[i], other.word[j], product[i + j], carry);
      }
      product[i + other.size] = carry;
    }
    int count = size + other.size;
    if (product[count - 1] == 0) {
      --count;
    }
    exponent += other.exponent;
    dropped += other.dropped;
    const int excess = count > kWords ? count - kWords : 0;
    bool has_loss = false;
    for (int i = 0; i < excess; ++i) {
      has_loss = has_loss || product[i] != 0;
    }
    for (int i = excess; i < count; ++i) {
      word[i - excess] = product[i];
    }
    size = count - excess;
    exponent += std::int64_t{64} * excess;
    dropped += has_loss ? 1 : 0;
  }

 private:
  // sum + a * b + carry as sum and carry.
  KORVEX_INLINE static void multiply_add(std::uint64_t a, std::uint64_t b, std::uint64_t& sum,
                                         std::uint64_t& carry) {
    std::uint64_t low = a * b;
    std::uint64_t high = multiply_high(a, b);
    low += carry;
    high += low < carry ? 1 : 0;
    sum += low;
    carry = high + (sum < low ? 1 : 0);
  }

  KORVEX_INLINE void multiply_words(std::uint64_t factor) {
    if (factor == 1) {
      return;
    }
    std::uint64_t carry = 0;
    for (int i = 0; i < size; ++i) {
      std::uint64_t sum = 0;
      multiply_add(word[i], factor, sum, carry);
      word[i] = sum;
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

constexpr int kFastProductWords = 6;
constexpr int kWideProductWords = 64;

// The product of some elements, with what is not a number among them; two join to that of both.
template <class Wide>
struct ElementProduct {
  Wide magnitude;  // of the product of the finite elements that are not 0
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

// The magnitude as words of 32 bits, and two for what rounding up or the interval may add.
template <int kWords>
using ProductBits = Natural<2 * kWords + 2>;

using FastProduct = ElementProduct<WideFloat<kFastProductWords>>;
using WideProduct = ElementProduct<WideFloat<kWideProductWords>>;

template <int kWords>
struct ProductWorkspace {
  ProductBits<kWords> bits;
  ProductBits<kWords> rest;
};

// Above it every limb is infinite, below its negative every limb is 0; far inside of int.
constexpr std::int64_t kExponentClamp = 1 << 20;

template <int kWords>
KORVEX_COLD void copy_words(const WideFloat<kWords>& from, ProductBits<kWords>& to) {
  to.clear();
  for (int i = 0; i < from.size; ++i) {
    to.word[2 * i] = static_cast<std::uint32_t>(from.word[i]);
    to.word[2 * i + 1] = static_cast<std::uint32_t>(from.word[i] >> 32);
  }
}

// limbs[0] = RN(v), limbs[1] = RN(v - limbs[0]) for v = work.bits * 2^exponent > 0; an infinity is
// followed by 0. Each limb is rounded once, subnormal ones too.
template <int kWords>
KORVEX_COLD void round_to_two_limbs(ProductWorkspace<kWords>& work, int exponent, double* limbs) {
  limbs[0] = work.bits.nearest(exponent, false);
  limbs[1] = 0.0;
  if (!is_finite(limbs[0]) || limbs[0] == 0) {
    return;  // after 0, at most half of 2^-1074 is left, which rounds to 0
  }
  // As an integer of the same unit. The exponent of the limb may lie below the unit of v only where
  // v is that limb exactly.
  const int position = kUnitExponent + shift(limbs[0]) - exponent;
  std::uint64_t limb_bits = significand(limbs[0]);
  int place = position;
  if (place < 0) {
    limb_bits = place <= -64 ? 0 : limb_bits >> -place;
    place = 0;
  }
  work.rest.clear();
  const int index = place >> 5;
  const int offset = place & 31;
  const std::uint64_t low = limb_bits << offset;
  work.rest.word[index] = static_cast<std::uint32_t>(low);
  work.rest.word[index + 1] = static_cast<std::uint32_t>(low >> 32);
  if (index + 2 < ProductBits<kWords>::kWords) {
    work.rest.word[index + 2] = static_cast<std::uint32_t>((limb_bits >> 1) >> (63 - offset));
  }
  const bool is_above = work.bits.is_less(work.rest);
  if (is_above) {
    work.rest.subtract(work.bits);
  } else {
    work.rest.subtract_from(work.bits);
  }
  const double rest = work.rest.nearest(exponent, false);
  limbs[1] = with_sign(rest, is_above);
}

// Writes both limbs; false where they are only those of the lower end of the interval.
template <int kWords>
KORVEX_COLD bool write_product_limbs(const ElementProduct<WideFloat<kWords>>& product,
                                     ProductWorkspace<kWords>& work, double* out, double* out_err) {
  const WideFloat<kWords>& magnitude = product.magnitude;
  std::int64_t clamped = magnitude.exponent;
  clamped = clamped > kExponentClamp ? kExponentClamp : clamped;
  clamped = clamped < -kExponentClamp ? -kExponentClamp : clamped;
  const int exponent = static_cast<int>(clamped);
  double lower[2];
  copy_words(magnitude, work.bits);
  round_to_two_limbs(work, exponent, lower);
  out[0] = with_sign(lower[0], product.is_negative);
  out_err[0] = with_sign(lower[1], product.is_negative);
  if (magnitude.dropped == 0) {
    return true;
  }
  // Each loss was below one part in 2^(64 (kWords - 1)), and the number is below 2^(64 kWords)
  // units: fewer than dropped * 2^64 units were lost, times 1 + 2^-100 for losses of losses.
  double upper[2];
  copy_words(magnitude, work.bits);
  work.bits.add_word(2, 2 * static_cast<std::uint64_t>(magnitude.dropped));
  round_to_two_limbs(work, exponent, upper);
  return upper[0] == lower[0] && upper[1] == lower[1];
}

// What the second try needs; on a device it lies in static memory.
struct WideProductWorkspace {
  WideProduct product;
  ProductWorkspace<kWideProductWords> bits;
};

// out[0], out_err[0]: the limbs of the product of x[0] to x[n - 1]; 1 for no elements. Any NaN, or
// an infinity with a zero, gives NaN; a product that overflows is an infinity; 0 follows both.
KORVEX_COLD inline void write_product(const FastProduct& product, const double* x, std::int64_t n,
                                      WideProductWorkspace& wide, double* out, double* out_err) {
  if (product.write_special(out, out_err)) {
    return;
  }
  ProductWorkspace<kFastProductWords> work;
  if (write_product_limbs(product, work, out, out_err)) {
    return;
  }
  wide.product = WideProduct();
  wide.product.add_range(x, n);
  write_product_limbs(wide.product, wide.bits, out, out_err);
}

}  // namespace korvex::arithmetic
