// SPDX-License-Identifier: Apache-2.0
// The highest and the lowest bit that the elements of a line have, which say how it is scaled.
#pragma once

#include <cstdint>

namespace korvex::modular {

// Of one line: every element is a multiple of 2^lowest and below 2^highest in magnitude. A line
// without anything but zeros has equal ones; one with an infinity or a NaN is not finite.
struct Extent {
  std::int16_t highest;
  std::int16_t lowest;

  static constexpr std::int16_t kNotFinite = 1025;  // highest

  int bits() const { return highest - lowest; }
  bool is_finite() const { return highest != kNotFinite; }
};

// Collects the extents of lines that are read piece by piece: each bit pattern as an integer.
struct ExtentCollector {
  std::int64_t largest = 0;       // magnitude, as bits
  std::int64_t lowest = 1 << 20;  // exponent of the lowest bit

  Extent extent() const;
};

// Elements of one line, side by side.
void collect_along(const double* x, std::int64_t count, ExtentCollector& line);
// One element of each of so many lines.
void collect_across(const double* x, std::int64_t count, std::int64_t* largest,
                    std::int64_t* lowest);

}  // namespace korvex::modular
