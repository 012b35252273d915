// SPDX-License-Identifier: Apache-2.0
// Arrays of any format and any stride, as the parallel sums read them: each element as a double, or
// a 64-bit integer as two, its upper half times 2^32, rounded down, and its lower half.
//
// The format is a number that all threads have alike, so it is asked once for the elements that a
// lane has of a tile, and their loads go out together. All conversions are exact; they are made of
// integer operations and one multiplication or subtraction.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/narrow_rounding.h"
#include "korvex/kernels/device/warp_sum.h"
#include "korvex/kernels/states.h"

namespace korvex::kernels {

// A format with fewer bits than a double has. Its bits but the sign, moved to the top of a double's
// fraction, are the same number but for a power of two, subnormal numbers too.
struct NarrowBits {
  int bytes;
  int shift;                // of the fraction to that of a double
  double scale;             // of values
  std::uint64_t infinity;   // its bits, without a sign
  std::uint64_t quiet_nan;  // the NaN that is written

  KORVEX_INLINE static NarrowBits of(int format) {
    if (format == kFloat16Format) {
      return {2, 52 - 10, 0x1p+1008, 0x7c00, 0x7e00};
    }
    if (format == kBfloat16Format) {
      return {2, 52 - 7, 0x1p+896, 0x7f80, 0x7fc0};
    }
    return {4, 52 - 23, 0x1p+896, 0x7f800000, 0x7fc00000};
  }

  KORVEX_INLINE double decode(std::uint64_t raw) const {
    const int sign_place = 8 * bytes - 1;
    const std::uint64_t sign = raw >> sign_place << 63;
    const std::uint64_t magnitude = raw & ((std::uint64_t{1} << sign_place) - 1);
    const std::uint64_t moved = magnitude << shift;
    const double value = arithmetic::mul_rn(arithmetic::from_bits(moved), scale);  // exact
    const std::uint64_t bits =
        magnitude < infinity ? arithmetic::to_bits(value) : moved | arithmetic::kInfinityBits;
    return arithmetic::from_bits(bits | sign);
  }

  // Precondition: the format has the number x.
  KORVEX_INLINE std::uint64_t encode(double x) const {
    const std::uint64_t sign = arithmetic::is_negative(x) ? std::uint64_t{1} << (8 * bytes - 1) : 0;
    if (arithmetic::is_nan(x)) {
      return quiet_nan;
    }
    if (!arithmetic::is_finite(x)) {
      return infinity | sign;
    }
    const double inverse = bytes == 2 && shift == 52 - 10 ? 0x1p-1008 : 0x1p-896;  // of the scale
    const double moved = arithmetic::mul_rn(arithmetic::absolute(x), inverse);     // exact
    return arithmetic::to_bits(moved) >> shift | sign;
  }
};

enum class Half : int { kHigh, kLow };

KORVEX_INLINE bool is_wide_format(int format) {
  return format == kInt64Format || format == kUint64Format;
}
KORVEX_INLINE bool is_signed_format(int format) {
  return format >= kInt8Format && format <= kInt64Format;
}
KORVEX_INLINE int bytes_of_format(int format) {
  switch (format) {
    case kBoolFormat:
    case kInt8Format:
    case kUint8Format:
      return 1;
    case kInt16Format:
    case kUint16Format:
    case kFloat16Format:
    case kBfloat16Format:
      return 2;
    case kInt32Format:
    case kUint32Format:
    case kFloat32Format:
      return 4;
    default:
      return 8;
  }
}

// An integer format: which bits of what was loaded are the integer.
struct IntegerBits {
  int left;  // shifted out, then back
  int right;
  bool is_signed;
  bool is_bool;
  double scale;

  KORVEX_INLINE static IntegerBits of(int format, Half half) {
    const bool is_signed = is_signed_format(format);
    if (is_wide_format(format)) {
      return half == Half::kHigh ? IntegerBits{0, 32, is_signed, false, 0x1p+32}
                                 : IntegerBits{32, 32, false, false, 1.0};
    }
    const int unused = 64 - 8 * bytes_of_format(format);
    return {unused, unused, is_signed, format == kBoolFormat, 1.0};
  }

  // At most 33 bits, which 2^52 + 2^51 takes up without rounding.
  KORVEX_INLINE double decode(std::uint64_t raw) const {
    const std::uint64_t moved = raw << left;
    const std::uint64_t integer =
        is_signed ? static_cast<std::uint64_t>(static_cast<std::int64_t>(moved) >> right)
                  : moved >> right;
    const std::uint64_t taken = is_bool ? (integer != 0 ? 1 : 0) : integer;
    constexpr double kBias = 0x1.8p+52;
    const double biased = arithmetic::from_bits(arithmetic::to_bits(kBias) + taken);
    return arithmetic::mul_rn(arithmetic::sub_rn(biased, kBias), scale);  // exact, both
  }
};

class StateElements {
 public:
  KORVEX_INLINE StateElements(const void* first, std::int64_t byte_stride, int format)
      : first_(static_cast<const unsigned char*>(first)), stride_(byte_stride), format_(format) {}

  KORVEX_INLINE bool is_wide() const { return is_wide_format(format_); }

  // The same array, of which the other half of wide integers is read.
  KORVEX_INLINE StateElements low() const {
    StateElements other = *this;
    other.half_ = Half::kLow;
    return other;
  }
  // With zeros in place of infinities and NaN.
  KORVEX_INLINE StateElements finite() const {
    StateElements other = *this;
    other.skips_specials_ = true;
    return other;
  }

  KORVEX_INLINE StateElements operator+(std::int64_t count) const {
    StateElements other = *this;
    other.first_ += count * stride_;
    return other;
  }
  KORVEX_INLINE StateElements moved(std::int64_t bytes) const {
    StateElements other = *this;
    other.first_ += bytes;
    return other;
  }
  KORVEX_INLINE double operator[](int place) const {
    std::uint64_t raw[1];
    double value[1];
    load_raw<1>(place, raw);
    convert<1>(raw, value);
    return value[0];
  }
  // Of the sign of the element, and zero only where that is zero; an infinity or NaN as it is.
  KORVEX_COLD double whole(int place) const {
    return is_wide() ? arithmetic::add_rn((*this)[place], low()[place]) : (*this)[place];
  }

  // Elements lane, lane + 32, and so on.
  template <int kCount>
  KORVEX_INLINE void load_lane(int lane, double* into) const {
    std::uint64_t raw[kCount];
    load_raw<kCount>(lane, raw);
    convert<kCount>(raw, into);
  }

 private:
  template <int kCount>
  KORVEX_INLINE void load_raw(int lane, std::uint64_t* raw) const {
    switch (bytes_of_format(format_)) {
      case 1:
        return load_words<kCount, std::uint8_t>(lane, raw);
      case 2:
        return load_words<kCount, std::uint16_t>(lane, raw);
      case 4:
        return load_words<kCount, std::uint32_t>(lane, raw);
      default:
        return load_words<kCount, std::uint64_t>(lane, raw);
    }
  }
  template <int kCount, class Word>
  KORVEX_INLINE void load_words(int lane, std::uint64_t* raw) const {
    const unsigned char* own = first_ + lane * stride_;
    for (int i = 0; i < kCount; ++i) {
      raw[i] = *reinterpret_cast<const Word*>(own + i * (kLanes * stride_));
    }
  }
  template <int kCount>
  KORVEX_INLINE void convert(const std::uint64_t* raw, double* into) const {
    if (format_ == kFloat64Format) {
      for (int i = 0; i < kCount; ++i) {
        into[i] = arithmetic::from_bits(raw[i]);
      }
    } else if (format_ >= kFloat16Format) {
      const NarrowBits bits = NarrowBits::of(format_);
      for (int i = 0; i < kCount; ++i) {
        into[i] = bits.decode(raw[i]);
      }
    } else {
      const IntegerBits bits = IntegerBits::of(format_, half_);
      for (int i = 0; i < kCount; ++i) {
        into[i] = bits.decode(raw[i]);
      }
    }
    if (skips_specials_) {
      for (int i = 0; i < kCount; ++i) {
        into[i] = arithmetic::is_finite(into[i]) ? into[i] : 0.0;
      }
    }
  }

  const unsigned char* first_;
  std::int64_t stride_;  // in bytes
  int format_;
  Half half_ = Half::kHigh;
  bool skips_specials_ = false;
};

}  // namespace korvex::kernels
