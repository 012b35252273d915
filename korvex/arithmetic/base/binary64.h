// SPDX-License-Identifier: Apache-2.0
// The fields of a binary64 number and the few values that are named by their bits.
//
// A finite double is  sign * significand(x) * 2^(-1074 + shift(x)),  significand < 2^53: every
// double is a multiple of 2^-1074, and the shift says which one.
#pragma once

#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

constexpr int kFractionBits = 52;
constexpr int kExponentBias = 1023;
constexpr int kMinExponent = -1022;   // of a normal number, and of the grid of the subnormal ones
constexpr int kUnitExponent = -1074;  // 2^-1074 divides every double
constexpr std::uint64_t kSignBit = 0x8000000000000000;
constexpr std::uint64_t kFractionMask = 0x000fffffffffffff;
constexpr std::uint64_t kInfinityBits = 0x7ff0000000000000;
constexpr std::uint64_t kNanBits = 0x7ff8000000000000;  // the one NaN that kernels write
constexpr double kLargest = 0x1.fffffffffffffp+1023;

KORVEX_INLINE double canonical_nan() { return from_bits(kNanBits); }
KORVEX_INLINE double infinity() { return from_bits(kInfinityBits); }

KORVEX_INLINE std::uint64_t magnitude_bits(double x) { return to_bits(x) & ~kSignBit; }
KORVEX_INLINE bool is_negative(double x) { return (to_bits(x) & kSignBit) != 0; }
KORVEX_INLINE bool is_nan(double x) { return magnitude_bits(x) > kInfinityBits; }
KORVEX_INLINE bool is_finite(double x) { return magnitude_bits(x) < kInfinityBits; }

// Without its sign, NaN included.
KORVEX_INLINE double absolute(double x) { return from_bits(magnitude_bits(x)); }

// 0 for zero and subnormal numbers, 1 to 2046 for normal ones, 2047 for infinities and NaN.
KORVEX_INLINE int exponent_field(double x) {
  return static_cast<int>(magnitude_bits(x) >> kFractionBits);
}

// Precondition of both: x is finite.
KORVEX_INLINE int shift(double x) {
  const int field = exponent_field(x);
  return field == 0 ? 0 : field - 1;
}
KORVEX_INLINE std::uint64_t significand(double x) {
  const std::uint64_t fraction = to_bits(x) & kFractionMask;
  return exponent_field(x) == 0 ? fraction : fraction | (kFractionMask + 1);
}

// 2^(field - 1023) for a field from 1 to 2046, as bits.
KORVEX_INLINE std::uint64_t exponent_bits(int field) {
  return static_cast<std::uint64_t>(field) << kFractionBits;
}

// 2^exponent, exact; precondition: kUnitExponent <= exponent <= 1023.
KORVEX_INLINE double power_of_two(int exponent) {
  if (exponent < kMinExponent) {
    // The precondition keeps the shift from 0 to 51; the analyzer does not see it.
    return from_bits(std::uint64_t{1} << (exponent - kUnitExponent));  // NOLINT
  }
  return from_bits(exponent_bits(exponent + kExponentBias));
}

// Functions, beside arithmetic, of code that is written once for one double and for several in the
// lanes of a register. Here stand those of one double; korvex/kernels/host/lanes.h has the others.
// Companions: the type of the integers that go with a Real, and of what a comparison gives.
template <class Real>
struct Companions;
template <>
struct Companions<double> {
  using Integer = int;
  using Flag = bool;
};

// Precondition: x is an integer and fits.
KORVEX_INLINE int to_integer(double x) { return static_cast<int>(x); }
KORVEX_INLINE int to_integer(std::uint64_t bits) { return static_cast<int>(bits); }
KORVEX_INLINE double to_real(int x) { return static_cast<double>(x); }
KORVEX_INLINE int one_where(bool flag) { return flag ? 1 : 0; }
KORVEX_INLINE bool both(bool a, bool b) { return a && b; }
KORVEX_INLINE double selected(bool flag, double where, double elsewhere) {
  return flag ? where : elsewhere;
}
KORVEX_INLINE int selected(bool flag, int where, int elsewhere) { return flag ? where : elsewhere; }
KORVEX_INLINE double lesser(double a, double b) { return a < b ? a : b; }
// magnitude, which has no sign, with that of x.
KORVEX_INLINE double with_sign_of(double x, double magnitude) {
  return from_bits(to_bits(magnitude) | (to_bits(x) & kSignBit));
}

}  // namespace korvex::arithmetic
