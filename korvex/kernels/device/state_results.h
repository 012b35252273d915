// SPDX-License-Identifier: Apache-2.0
// Elements of results in their format: float64, or rounded once to a narrower one.
#pragma once

#include "korvex/arithmetic/exact/narrow_rounding.h"
#include "korvex/kernels/device/state_elements.h"

namespace korvex::kernels {

KORVEX_INLINE bool is_narrow_result(int format) { return format != kFloat64Format; }
// The constants are copied, as device code can name no object of the host.
KORVEX_INLINE arithmetic::NarrowFormat narrow_result(int format) {
  constexpr arithmetic::NarrowFormat kHalf = arithmetic::kFloat16;
  constexpr arithmetic::NarrowFormat kBrain = arithmetic::kBfloat16;
  constexpr arithmetic::NarrowFormat kSingle = arithmetic::kFloat32;
  return format == kFloat16Format ? kHalf : format == kBfloat16Format ? kBrain : kSingle;
}

// What RN(v) and the sign of v - RN(v) tell about v in a format.
KORVEX_INLINE double rounded_once(double nearest, int sign_of_rest, int format) {
  if (!is_narrow_result(format) || !arithmetic::is_finite(nearest)) {
    return nearest;
  }
  return arithmetic::round_to_format(arithmetic::round_to_odd(nearest, sign_of_rest),
                                     narrow_result(format));
}

// -1, 0 or 1.
KORVEX_INLINE int sign_of(double x) { return x > 0 ? 1 : x < 0 ? -1 : 0; }

// Writes a number that the format has.
KORVEX_INLINE void write_result(double value, int format, void* out) {
  if (!is_narrow_result(format)) {
    *static_cast<double*>(out) = value;
    return;
  }
  const NarrowBits bits = NarrowBits::of(format);
  if (bits.bytes == 2) {
    *static_cast<std::uint16_t*>(out) = static_cast<std::uint16_t>(bits.encode(value));
  } else {
    *static_cast<std::uint32_t*>(out) = static_cast<std::uint32_t>(bits.encode(value));
  }
}

// An array of results side by side, or step elements apart.
struct ResultElements {
  void* out;
  std::int64_t step;
  int format;

  KORVEX_INLINE void write(std::int64_t i, double value) const {
    write_result(value, format, static_cast<char*>(out) + i * step * bytes_of_format(format));
  }
};

}  // namespace korvex::kernels
