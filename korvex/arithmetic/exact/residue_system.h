// SPDX-License-Identifier: Apache-2.0
// Integers by their residues for pairwise coprime moduli, and what brings them back.
//
// An integer C with |C| <= M / 4, M the product of the moduli p_t, is known from its residues: with
// e_t = C * (M / p_t)^-1 mod p_t, C = sum of e_t * M / p_t - q * M, where q is the integer next to
// the sum of e_t / p_t, which lies within 1/4 of one. Here are the moduli, and the constants of
// that formula as digits of radix 256. The bounds are proved in docs/numerics_modular.md and
// checked by korvex_tools.modular_bounds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace korvex::arithmetic {

// An integer of 44 digits of radix 256, lowest first: room for the product of all moduli.
struct ByteNumber {
  static constexpr int kDigits = 44;
  std::array<std::uint8_t, kDigits> digit{};

  // Precondition: the product fits.
  constexpr void multiply(int factor) {
    int carry = 0;
    for (std::uint8_t& each : digit) {
      carry += each * factor;
      each = static_cast<std::uint8_t>(carry & 255);
      carry >>= 8;
    }
  }
  // Becomes the quotient, rounded down; returns the remainder.
  constexpr int divide(int divisor) {
    int rest = 0;
    for (std::size_t place = kDigits; place-- > 0;) {
      rest = rest * 256 + digit[place];
      digit[place] = static_cast<std::uint8_t>(rest / divisor);
      rest %= divisor;
    }
    return rest;
  }
  constexpr int bit_length() const {
    for (int place = kDigits - 1; place >= 0; --place) {
      int bits = 8 * place;
      for (int rest = digit[static_cast<std::size_t>(place)]; rest != 0; rest >>= 1) {
        ++bits;
      }
      if (bits != 8 * place) {
        return bits;
      }
    }
    return 0;
  }
};

constexpr int kMostModuli = 48;
// So a residue next to zero is a signed byte even where its quotient was rounded wrongly by one
// part in p: 251 / 2 + 1 < 127.
constexpr int kLargestModulus = 251;

// Largest first, each coprime to all before it.
constexpr std::array<std::uint8_t, kMostModuli> pairwise_coprime_moduli() {
  std::array<std::uint8_t, kMostModuli> moduli{};
  std::size_t count = 0;
  for (int candidate = kLargestModulus; count < moduli.size(); --candidate) {
    bool is_coprime = true;
    for (std::size_t i = 0; i < count && is_coprime; ++i) {
      int a = candidate;
      int b = moduli[i];
      while (b != 0) {
        const int rest = a % b;
        a = b;
        b = rest;
      }
      is_coprime = a == 1;
    }
    if (is_coprime) {
      moduli[count++] = static_cast<std::uint8_t>(candidate);
    }
  }
  return moduli;
}

inline constexpr std::array<std::uint8_t, kMostModuli> kModuli = pairwise_coprime_moduli();

// floor(log2(product of the first i + 1 moduli)).
inline constexpr std::array<int, kMostModuli> kBitsOfModuli = [] {
  std::array<int, kMostModuli> bits{};
  ByteNumber product = {{1}};
  for (std::size_t t = 0; t < kModuli.size(); ++t) {
    product.multiply(kModuli[t]);
    bits[t] = product.bit_length() - 1;
  }
  return bits;
}();

// The first `count` moduli, with the constants that bring an integer back.
class ResidueSystem {
 public:
  static constexpr int kFractionBits = 16;

  // How many moduli have a product of at least 2^bits; 0 where all have not.
  static constexpr int count_for(int bits) {
    for (std::size_t t = 0; t < kBitsOfModuli.size(); ++t) {
      if (kBitsOfModuli[t] >= bits) {
        return static_cast<int>(t) + 1;
      }
    }
    return 0;
  }

  explicit ResidueSystem(int count) : count_(count), product_{{1}} {
    for (int t = 0; t < count; ++t) {
      product_.multiply(modulus(t));
    }
    for (int t = 0; t < count; ++t) {
      ByteNumber& quotient = quotient_[index(t)];
      quotient = product_;
      quotient.divide(modulus(t));
      ByteNumber rest = quotient;
      inverse_[index(t)] = inverse_of(rest.divide(modulus(t)), modulus(t));
    }
  }

  int count() const { return count_; }
  static int modulus(int t) { return kModuli[index(t)]; }
  // (M / p_t)^-1 mod p_t.
  int inverse(int t) const { return inverse_[index(t)]; }
  // Digits of radix 256 of M / p_t and of M.
  int quotient_digit(int t, int place) const { return quotient_[index(t)].digit[index(place)]; }
  int product_digit(int place) const { return product_.digit[index(place)]; }
  // 2^16 / p_t, rounded to an integer.
  static int fraction(int t) { return ((2 << kFractionBits) / modulus(t) + 1) / 2; }
  // Digits of radix 2^16 that hold M; balanced ones hold each C.
  int wide_digits() const { return (product_.bit_length() + 15) / 16; }

 private:
  static constexpr std::size_t index(int i) { return static_cast<std::size_t>(i); }

  // Precondition: x and the modulus are coprime.
  static int inverse_of(int x, int modulus) {
    int inverse = 1;
    while (inverse * x % modulus != 1) {
      ++inverse;
    }
    return inverse;
  }

  int count_;
  ByteNumber product_;
  std::array<ByteNumber, kMostModuli> quotient_;
  std::array<int, kMostModuli> inverse_{};
};

}  // namespace korvex::arithmetic
