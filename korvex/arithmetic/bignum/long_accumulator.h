// SPDX-License-Identifier: Apache-2.0
// Fixed-point numbers wide enough for every sum of doubles, or of products of two: nothing is ever
// rounded going in.
//
// Kulisch, Computer Arithmetic and Validity, 2013, chapter 8. For sums the unit is 2^-1074, so each
// double is an integer; 68 digits of radix 2^32 reach 2^1102, room for 2^63 addends of the largest
// magnitude with their sign. For products the unit is 2^-2148, the product of the two smallest
// doubles, and 134 digits reach 2^2140, room for 2^63 products again. A digit is held in 64 bits,
// so an addition touches a few digits and carries nothing; carries are settled once in 2^29
// additions and before a rounding. A settled number that is not negative can be read like any other
// big number: see rounding.h.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"

namespace korvex::arithmetic {

template <int kUnit, int kDigitCount>
class FixedPoint {
 public:
  static constexpr int kDigits = kDigitCount;
  static constexpr int kLowestExponent = kUnit;  // the unit is 2 to this power
  static_assert(kDigits % 2 == 0);
  static constexpr int kWords = kDigits / 2;
  using Magnitude = Natural<kWords>;

  // There is no constructor on purpose: on a device the digits lie in slow memory, and most sums
  // never need them. clear() comes before any other call.
  KORVEX_COLD void clear() {
    for (int i = 0; i < kDigits; ++i) {
      digit_[i] = 0;
    }
    pending_ = 0;
  }

  // Precondition: x is finite.
  KORVEX_INLINE void add(double x) {
    const int position = shift(x) + kBitsBelowDoubles;
    const std::uint64_t value = significand(x);
    const int index = position >> 5;
    const int offset = position & 31;
    const std::uint64_t low = value << offset;
    const std::uint64_t high = (value >> 1) >> (63 - offset);  // a shift by 64 is not defined
    const std::int64_t sign = is_negative(x) ? -1 : 1;
    digit_[index] += sign * static_cast<std::int64_t>(low & kDigitMask);
    digit_[index + 1] += sign * static_cast<std::int64_t>(low >> 32);
    digit_[index + 2] += sign * static_cast<std::int64_t>(high);
    settle_if_due(1);
  }

  // Adds x * y, all 106 bits of it. Precondition: both are finite.
  KORVEX_INLINE void add_product(double x, double y) {
    static_assert(kUnit == 2 * kUnitExponent, "the unit must divide every product");
    const std::uint64_t low = significand(x) * significand(y);
    const std::uint64_t high = multiply_high(significand(x), significand(y));
    const int position = shift(x) + shift(y);
    const int index = position >> 5;
    const int offset = position & 31;
    const std::uint64_t w0 = low << offset;
    const std::uint64_t w1 = high << offset | (low >> 1) >> (63 - offset);
    const std::uint64_t w2 = (high >> 1) >> (63 - offset);
    const std::int64_t sign = is_negative(x) != is_negative(y) ? -1 : 1;
    digit_[index] += sign * static_cast<std::int64_t>(w0 & kDigitMask);
    digit_[index + 1] += sign * static_cast<std::int64_t>(w0 >> 32);
    digit_[index + 2] += sign * static_cast<std::int64_t>(w1 & kDigitMask);
    digit_[index + 3] += sign * static_cast<std::int64_t>(w1 >> 32);
    digit_[index + 4] += sign * static_cast<std::int64_t>(w2);
    settle_if_due(1);
  }

  // Adds count * 2^(32 * index + kLowestExponent). Precondition: 0 <= index <= kDigits - 2.
  KORVEX_INLINE void add_digit(int index, std::int64_t count) {
    digit_[index] += count & kDigitMask;
    digit_[index + 1] += count >> 32;
    settle_if_due(1);
  }

  KORVEX_COLD void add(const FixedPoint& other) {
    for (int i = 0; i < kDigits; ++i) {
      digit_[i] += other.digit_[i];
    }
    settle_if_due(other.pending_ + 1);
  }

  KORVEX_COLD void subtract(const FixedPoint& other) {
    for (int i = 0; i < kDigits; ++i) {
      digit_[i] -= other.digit_[i];
    }
    settle_if_due(other.pending_ + 1);
  }

  // Takes over kDigits digits that store() wrote, or the sums of those of up to 2^31 - 1 numbers:
  // such digits are at most kLargestDigit. False, with the value undefined, where they are none.
  KORVEX_COLD bool load(const std::int64_t* digits) {
    for (int i = 0; i < kDigits; ++i) {
      if (digits[i] > kLargestDigit || digits[i] < -kLargestDigit) {
        return false;
      }
      digit_[i] = digits[i];
    }
    settle();
    const std::int64_t top = digit_[kDigits - 1];
    return top <= kDigitMask && top >= -kDigitMask;
  }

  // Writes kDigits settled digits.
  KORVEX_COLD void store(std::int64_t* digits) {
    settle();
    for (int i = 0; i < kDigits; ++i) {
      digits[i] = digit_[i];
    }
  }

  // Writes the canonical limbs of the value S: limbs[0] = RN(S), limbs[1] = RN(S - limbs[0]), and
  // so on. A limb that would round to an infinity is the largest double instead, and the next limbs
  // take the rest; where the last limb would still be infinite, the result is that infinity in
  // limbs[0]. All limbs not named are +0. The accumulator holds the unwritten rest afterwards.
  KORVEX_COLD void round(double* limbs, int limb_count) {
    for (int i = 0; i < limb_count; ++i) {
      limbs[i] = 0.0;
    }
    for (int i = 0; i < limb_count; ++i) {
      double limb = nearest();
      if (!is_finite(limb)) {
        if (i == limb_count - 1) {
          overflow(limb, limbs, limb_count);
          return;
        }
        limb = limb < 0 ? -kLargest : kLargest;
      }
      if (limb == 0) {
        return;
      }
      limbs[i] = limb;
      add(-limb);
    }
  }

  // Settles the carries, after which at() reads the value. False where it is negative: then at()
  // does not.
  KORVEX_COLD bool settle_to_read() {
    settle();
    return digit_[kDigits - 1] >= 0;
  }

  // The value in units is the sum of at(i) * 2^(64 i). Precondition: settled, not negative.
  KORVEX_HD std::uint64_t at(int index) const {
    if (index >= kWords) {
      return 0;
    }
    return static_cast<std::uint64_t>(digit_[2 * index]) |
           static_cast<std::uint64_t>(digit_[2 * index + 1]) << 32;
  }

  // Writes the magnitude of the value in units; true where the value is negative. The value stays.
  KORVEX_COLD bool magnitude(Magnitude& to) {
    const bool is_negative = !settle_to_read();
    if (is_negative) {
      negate();
    }
    for (int i = 0; i < kWords; ++i) {
      to.word[i] = at(i);
    }
    if (is_negative) {
      negate();
    }
    return is_negative;
  }

  KORVEX_COLD bool is_zero() {
    settle();
    std::int64_t bits = 0;
    for (int i = 0; i < kDigits; ++i) {
      bits |= digit_[i];
    }
    return bits == 0;
  }

  // -1, 0 or 1.
  KORVEX_COLD int sign() { return is_zero() ? 0 : digit_[kDigits - 1] < 0 ? -1 : 1; }

 private:
  static constexpr std::int64_t kDigitMask = 0xffffffff;
  // A digit that settles without overflow: the carry into it is at most 2^31 in magnitude. The sum
  // of 2^31 - 1 settled digits lies below.
  static constexpr std::int64_t kLargestDigit = 0x7fffffff00000000;
  // Each double is a multiple of 2 to this power, in units.
  static constexpr int kBitsBelowDoubles = kUnitExponent - kUnit;
  static constexpr std::int64_t kPendingLimit = std::int64_t{1} << 29;

  KORVEX_HD static void overflow(double infinite, double* limbs, int limb_count) {
    limbs[0] = infinite;
    for (int i = 1; i < limb_count; ++i) {
      limbs[i] = 0.0;
    }
  }

  KORVEX_INLINE void settle_if_due(std::int64_t additions) {
    pending_ += additions;
    if (pending_ > kPendingLimit) {
      settle();
    }
  }

  // Brings all digits but the last into [0, 2^32); the last then carries the sign of the value.
  // Compilers for compute capability 5.0 to 7.5 that are left to unroll this loop as they like keep
  // up to 500 bytes more on the stack of a thread.
  KORVEX_COLD void settle() {
    std::int64_t carry = 0;
    KORVEX_UNROLL_4
    for (int i = 0; i < kDigits - 1; ++i) {
      const std::int64_t digit = digit_[i] + carry;
      digit_[i] = digit & kDigitMask;
      carry = digit >> 32;  // rounds down, as the digit just kept is not negative
    }
    digit_[kDigits - 1] += carry;
    pending_ = 0;
  }

  KORVEX_COLD void negate() {
    for (int i = 0; i < kDigits; ++i) {
      digit_[i] = -digit_[i];
    }
    settle();
  }

  // RN(value), an infinity from 2^1024 - 2^970 on; +0 for zero. Leaves the carries settled.
  KORVEX_COLD double nearest() {
    settle();
    if (digit_[kDigits - 1] >= 0) {
      return arithmetic::nearest(*this, kUnit, false);
    }
    negate();
    const double magnitude = arithmetic::nearest(*this, kUnit, false);
    negate();
    return -magnitude;
  }

  // The value is the sum of digit_[i] * 2^(32 i) units; |digit_[i]| <= (pending_ + 1) * 2^32, but
  // for the last, which the room for addends bounds.
  std::int64_t digit_[kDigits];
  // Additions since the carries were settled; at most kPendingLimit between calls.
  std::int64_t pending_;
};

using LongAccumulator = FixedPoint<kUnitExponent, 68>;
using ProductAccumulator = FixedPoint<2 * kUnitExponent, 134>;

}  // namespace korvex::arithmetic
