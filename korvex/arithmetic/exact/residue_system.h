// SPDX-License-Identifier: Apache-2.0
// Integers by their residues for pairwise coprime moduli, and what brings them back.
//
// An integer C with |C| <= M / 4, M the product of the moduli p_t, is known from its residues: with
// e_t = C * (M / p_t)^-1 mod p_t, C = sum of e_t * M / p_t - q * M, where q is the integer next to
// the sum of e_t / p_t, which lies within 1/4 of one. Here are the moduli, and the constants of
// that formula as digits. The bounds are proved in docs/numerics_modular.md and
// checked by korvex_tools.modular_bounds.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace korvex::arithmetic {

// Moduli up to 251, for products of bytes. A residue next to zero is a signed byte even where its
// quotient was rounded wrongly by one part in p: 251 / 2 + 1 < 127.
struct ByteModuli {
  static constexpr int kMostModuli = 48;
  static constexpr int kLargestModulus = 251;
  static constexpr int kDigitBits = 8;
  static constexpr int kDigits = 44;
};

// Moduli below 2^23.5, for products of doubles: 256 products of residues next to zero, and one
// residue, sum up to 2^53 at most.
struct DoubleModuli {
  static constexpr int kMostModuli = 15;
  static constexpr int kLargestModulus = 11863000;
  static constexpr int kDigitBits = 24;
  static constexpr int kDigits = 16;
};

// An integer of digits of the radix, lowest first: room for the product of all moduli.
template <class Moduli>
struct DigitNumber {
  static constexpr int kDigits = Moduli::kDigits;
  static constexpr int kBits = Moduli::kDigitBits;
  std::array<std::uint32_t, kDigits> digit{};

  // Precondition: the product fits.
  constexpr void multiply(int factor) {
    std::uint64_t carry = 0;
    for (std::uint32_t& each : digit) {
      carry += std::uint64_t{each} * static_cast<std::uint64_t>(factor);
      each = static_cast<std::uint32_t>(carry & ((1U << kBits) - 1));
      carry >>= kBits;
    }
  }
  // Becomes the quotient, rounded down; returns the remainder.
  constexpr int divide(int divisor) {
    const auto by = static_cast<std::uint64_t>(divisor);
    std::uint64_t rest = 0;
    for (std::size_t place = kDigits; place-- > 0;) {
      rest = (rest << kBits) + digit[place];
      digit[place] = static_cast<std::uint32_t>(rest / by);
      rest %= by;
    }
    return static_cast<int>(rest);
  }
  constexpr int bit_length() const {
    for (int place = kDigits - 1; place >= 0; --place) {
      const std::uint32_t highest = digit[static_cast<std::size_t>(place)];
      if (highest != 0) {
        return kBits * place + static_cast<int>(std::bit_width(highest));
      }
    }
    return 0;
  }
};

// The greatest common divisor where x and m are positive, and, where that is 1, x^-1 mod m. Euclid.
struct InverseOf {
  int divisor;
  int inverse;
};

constexpr InverseOf inverse_of(int x, int m) {
  std::int64_t a = x % m, b = m;
  std::int64_t factor = 1, next = 0;  // a = factor * x mod m, b = next * x mod m
  while (b != 0) {
    const std::int64_t quotient = a / b;
    a = std::exchange(b, a - quotient * b);
    factor = std::exchange(next, factor - quotient * next);
  }
  return {static_cast<int>(a), static_cast<int>((factor % m + m) % m)};
}

// Largest first, each coprime to all before it.
template <class Moduli>
constexpr std::array<int, Moduli::kMostModuli> pairwise_coprime_moduli() {
  std::array<int, Moduli::kMostModuli> moduli{};
  std::size_t count = 0;
  for (int candidate = Moduli::kLargestModulus; count < moduli.size(); --candidate) {
    bool is_coprime = true;
    for (std::size_t i = 0; i < count && is_coprime; ++i) {
      is_coprime = inverse_of(candidate, moduli[i]).divisor == 1;
    }
    if (is_coprime) {
      moduli[count++] = candidate;
    }
  }
  return moduli;
}

// The first `count` moduli, with the constants that bring an integer back.
template <class Moduli>
class ResidueSystemOf {
 public:
  static constexpr int kMostModuli = Moduli::kMostModuli;
  static constexpr int kDigits = Moduli::kDigits;
  static constexpr int kDigitBits = Moduli::kDigitBits;
  static constexpr std::array<int, kMostModuli> kModuli = pairwise_coprime_moduli<Moduli>();

  // floor(log2(product of the first i + 1 moduli)).
  static constexpr std::array<int, kMostModuli> kBitsOfModuli = [] {
    std::array<int, kMostModuli> bits{};
    DigitNumber<Moduli> product = {{1}};
    for (std::size_t t = 0; t < kModuli.size(); ++t) {
      product.multiply(kModuli[t]);
      bits[t] = product.bit_length() - 1;
    }
    return bits;
  }();

  // How many moduli have a product of at least 2^bits; 0 where all have not.
  static constexpr int count_for(int bits) {
    for (std::size_t t = 0; t < kBitsOfModuli.size(); ++t) {
      if (kBitsOfModuli[t] >= bits) {
        return static_cast<int>(t) + 1;
      }
    }
    return 0;
  }

  explicit ResidueSystemOf(int count) : count_(count), product_{{1}} {
    for (int t = 0; t < count; ++t) {
      product_.multiply(modulus(t));
    }
    for (int t = 0; t < count; ++t) {
      DigitNumber<Moduli>& quotient = quotient_[index(t)];
      quotient = product_;
      quotient.divide(modulus(t));
      DigitNumber<Moduli> rest = quotient;
      inverse_[index(t)] = inverse_of(rest.divide(modulus(t)), modulus(t)).inverse;
    }
  }

  int count() const { return count_; }
  static int modulus(int t) { return kModuli[index(t)]; }
  // (M / p_t)^-1 mod p_t.
  int inverse(int t) const { return inverse_[index(t)]; }
  // Digits of M / p_t and of M.
  std::uint32_t quotient_digit(int t, int place) const {
    return quotient_[index(t)].digit[index(place)];
  }
  std::uint32_t product_digit(int place) const { return product_.digit[index(place)]; }
  // How many digits of radix 2^bits hold M; balanced ones hold each C.
  int digits_of(int bits) const { return (product_.bit_length() + bits - 1) / bits; }

 private:
  static constexpr std::size_t index(int i) { return static_cast<std::size_t>(i); }

  int count_;
  DigitNumber<Moduli> product_;
  std::array<DigitNumber<Moduli>, kMostModuli> quotient_;
  std::array<int, kMostModuli> inverse_{};
};

using ResidueSystem = ResidueSystemOf<ByteModuli>;
using DoubleResidueSystem = ResidueSystemOf<DoubleModuli>;

}  // namespace korvex::arithmetic
