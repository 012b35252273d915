// SPDX-License-Identifier: Apache-2.0
// An exact running sum of any doubles: four limbs while four limbs will do, a long accumulator for
// what they refuse, and flags for infinities and NaN.
//
// What comes out is defined by the exact sum S alone, so neither the order of the addends nor the
// way they were grouped shows in the bits. Rules for what is not a number: any NaN, or infinities
// of both signs, give l0 = NaN (always the same bits); infinities of one sign give l0 = that
// infinity; the other limbs are +0 then.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/exact/accumulator4.h"
#include "korvex/arithmetic/exact/canonical.h"

namespace korvex::arithmetic {

// Wide is the long accumulator, one of the FixedPoint types.
template <class Wide>
class BasicExactSum {
 public:
  using Long = Wide;
  static constexpr int kHighestScale = 960;

  KORVEX_INLINE void add(double x) {
    if (!is_finite(x)) {
      note_special(x);
    } else if (!limbs_.try_add(x)) {
      add_refused(x);
    }
  }

  // The same for an addend that is expected not to suit four limbs.
  KORVEX_INLINE void add_wide(double x) {
    if (is_finite(x)) {
      open_wide();
      wide_.add(x);
    } else {
      note_special(x);
    }
  }

  // Adds count * 2^exponent. Preconditions: |count| <= 2^62, kUnitExponent <= exponent, and
  // exponent <= kHighestScale, so that nothing overflows on the way.
  KORVEX_COLD void add_scaled(std::int64_t count, int exponent) {
    const double unit = power_of_two(exponent);
    const double high = static_cast<double>(count >> 32);        // exact, rounded down
    const double low = static_cast<double>(count & 0xffffffff);  // exact
    add(mul_rn(mul_rn(high, 0x1p+32), unit));                    // exact
    add(mul_rn(low, unit));                                      // exact
  }

  // Adds count * 2^(32 * index + Wide::kLowestExponent). Precondition: 0 <= index, and index is at
  // most Wide::kDigits - 2.
  KORVEX_COLD void add_digit(int index, std::int64_t count) {
    const int exponent = 32 * index + Wide::kLowestExponent;
    if (kUnitExponent <= exponent && exponent <= kHighestScale) {
      add_scaled(count, exponent);
    } else {
      open_wide();
      wide_.add_digit(index, count);
    }
  }

  KORVEX_COLD void add(const BasicExactSum& other) {
    special_ |= other.special_;
    for (int i = 0; i < 4; ++i) {
      add(other.limbs_.limb[i]);
    }
    if (other.wide_open_) {
      open_wide();
      wide_.add(other.wide_);
    }
  }

  // True where no further addend can change what round() writes.
  KORVEX_INLINE bool is_decided() const {
    return (special_ & kNan) != 0 || special_ == (kPlusInfinity | kMinusInfinity);
  }

  // The infinity that the sum is for now, where no NaN was added and but one sign of infinity.
  KORVEX_INLINE double infinity_so_far() const {
    return from_bits(kInfinityBits | (special_ == kMinusInfinity ? kSignBit : 0));
  }

  // Writes the first kLimbs canonical limbs, 1 to 4 of them; ends the use of this object. Of fewer
  // than four, the last is where the overflow rule of FixedPoint::round takes effect.
  template <int kLimbs>
  KORVEX_COLD void round(double* out) {
    static_assert(kLimbs >= 1 && kLimbs <= 4);
    if (special_ != 0) {
      round_special(out, kLimbs);
      return;
    }
    if (wide_open_) {
      spill();
      wide_.round(out, kLimbs);
      return;
    }
    if (!canonicalise_fast(limbs_.limb)) {
      spill();
      wide_.round(limbs_.limb, 4);
    }
    for (int i = 0; i < kLimbs; ++i) {
      out[i] = limbs_.limb[i];
    }
  }

  // Adds the sum of the finite addends to a long accumulator.
  KORVEX_COLD void add_to(Wide& to) const {
    for (int i = 0; i < 4; ++i) {
      to.add(limbs_.limb[i]);
    }
    if (wide_open_) {
      to.add(wide_);
    }
  }

  // True where no infinity and no NaN was added.
  KORVEX_INLINE bool is_sum_of_finite() const { return special_ == 0; }

  // Writes the magnitude of the sum of the finite addends in units of Wide; true where it is
  // negative.
  KORVEX_COLD bool magnitude(typename Wide::Magnitude& to) {
    spill();
    return wide_.magnitude(to);
  }

 protected:
  static constexpr unsigned kNan = 1;
  static constexpr unsigned kPlusInfinity = 2;
  static constexpr unsigned kMinusInfinity = 4;

  KORVEX_COLD void note_special(double x) {
    special_ |= is_nan(x) ? kNan : is_negative(x) ? kMinusInfinity : kPlusInfinity;
  }

  KORVEX_INLINE void open_wide() {
    if (!wide_open_) {
      wide_.clear();
      wide_open_ = true;
    }
  }

  KORVEX_COLD void add_refused(double x) {
    spill();
    wide_.add(x);
  }

  KORVEX_COLD void spill() {
    open_wide();
    for (int i = 0; i < 4; ++i) {
      wide_.add(limbs_.limb[i]);
      limbs_.limb[i] = 0.0;
    }
  }

  KORVEX_COLD void round_special(double* out, int limb_count) const {
    out[0] = is_decided() ? canonical_nan() : infinity_so_far();
    for (int i = 1; i < limb_count; ++i) {
      out[i] = 0.0;
    }
  }

  // The sum of the finite addends is limbs_ plus, where wide_open_, wide_.
  Accumulator4 limbs_;
  bool wide_open_ = false;
  unsigned special_ = 0;  // which of kNan, kPlusInfinity, kMinusInfinity were seen
  Wide wide_;             // untouched memory until wide_open_
};

using ExactSum = BasicExactSum<LongAccumulator>;

}  // namespace korvex::arithmetic
