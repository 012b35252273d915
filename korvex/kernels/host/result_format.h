// SPDX-License-Identifier: Apache-2.0
// Elements of results in their format: rounded once from the first two limbs of an exact value.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/exact/narrow_rounding.h"
#include "korvex/kernels/host/exact.h"

namespace korvex::host {

// Null for float64.
inline const arithmetic::NarrowFormat* narrow_format(int format) {
  return format == KORVEX_FORMAT_FLOAT16    ? &arithmetic::kFloat16
         : format == KORVEX_FORMAT_BFLOAT16 ? &arithmetic::kBfloat16
         : format == KORVEX_FORMAT_FLOAT32  ? &arithmetic::kFloat32
                                            : nullptr;
}

// The bits of a float16, given its value as a double.
inline std::uint16_t float16_bits(double x) {
  const int sign = arithmetic::is_negative(x) ? 0x8000 : 0;
  if (!arithmetic::is_finite(x)) {
    return static_cast<std::uint16_t>(arithmetic::is_nan(x) ? 0x7e00 : sign | 0x7c00);
  }
  const double magnitude = arithmetic::absolute(x);
  if (magnitude < 0x1p-14) {
    return static_cast<std::uint16_t>(sign | static_cast<int>(magnitude * 0x1p+24));  // exact
  }
  const auto fields = static_cast<int>(arithmetic::magnitude_bits(x) >> 42);
  return static_cast<std::uint16_t>(sign | (fields - ((1023 - 15) << 10)));
}

// An output array in one of the result formats.
class ResultArray {
 public:
  ResultArray(void* out, int format) : out_(out), format_(format) {}

  // From the i-th element on. Precondition: the format is float64.
  double* doubles_from(std::int64_t i) const { return static_cast<double*>(out_) + i; }

  // Precondition: the format holds x exactly.
  void write(std::int64_t i, double x) const {
    switch (format_) {
      case KORVEX_FORMAT_FLOAT16:
        static_cast<std::uint16_t*>(out_)[i] = float16_bits(x);
        return;
      case KORVEX_FORMAT_BFLOAT16: {
        const auto value = static_cast<float>(x);  // exact
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        static_cast<std::uint16_t*>(out_)[i] = static_cast<std::uint16_t>(bits >> 16);
        return;
      }
      case KORVEX_FORMAT_FLOAT32:
        static_cast<float*>(out_)[i] = static_cast<float>(x);  // exact
        return;
      default:
        static_cast<double*>(out_)[i] = x;
    }
  }

 private:
  void* out_;
  int format_;
};

// -1, 0 or 1.
inline int sign_of(double x) { return x > 0 ? 1 : x < 0 ? -1 : 0; }

// What RN(v) and the sign of v - RN(v) tell about v in a format; null: float64.
inline double rounded_once(double nearest, int sign_of_rest,
                           const arithmetic::NarrowFormat* narrow) {
  if (narrow == nullptr || !arithmetic::is_finite(nearest)) {
    return nearest;
  }
  return arithmetic::round_to_format(arithmetic::round_to_odd(nearest, sign_of_rest), *narrow);
}

}  // namespace korvex::host
