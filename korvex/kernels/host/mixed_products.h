// SPDX-License-Identifier: Apache-2.0
// Products of elements of two different number formats: both are converted to doubles, a block at a
// time; 64-bit integers to two doubles, whose products are added apart.
#pragma once

#include <cstdint>

#include "korvex/kernels/host/terms.h"

namespace korvex::host {

// Up to kBlock elements as doubles: each is high + low.
struct ConvertedBlock {
  double high[kBlock];
  double low[kBlock];  // unused unless has_low
  bool has_low;

  void convert(int format, const void* elements, std::int64_t count) {
    with_format(format, [&](auto each) {
      using Format = decltype(each);
      const auto* x = static_cast<const typename Format::Storage*>(elements);
      has_low = Format::kIsWide;
      for (std::int64_t i = 0; i < count; ++i) {
        high[i] = Format::high(x[i]);
      }
      if constexpr (Format::kIsWide) {
        for (std::int64_t i = 0; i < count; ++i) {
          low[i] = Format::low(x[i]);
        }
      }
    });
  }

  // Rounded; it has the sign of the element, and is 0 only where that is.
  double rounded(std::int64_t i) const { return has_low ? high[i] + low[i] : high[i]; }
};

// An infinity must meet the whole integer, not its halves, which may be 0 or of the other sign:
// counts the products with an element of `x` that is not finite, and puts a zero in its place.
inline void take_specials(ConvertedBlock& x, const ConvertedBlock& integers, std::int64_t count,
                          CountedProductSum& sum) {
  for (std::int64_t i = 0; i < count; ++i) {
    if (!arithmetic::is_finite(x.high[i])) {
      sum.counts.note(x.high[i] * integers.rounded(i));
      x.high[i] = 0.0;
    }
  }
}

// Adds the products of elements of two formats. Precondition: count <= kBlock.
inline void add_mixed_products(ConvertedBlock& x, ConvertedBlock& y, std::int64_t count,
                               CountedProductSum& sum) {
  if (x.has_low && !y.has_low) {
    take_specials(y, x, count, sum);
  }
  if (y.has_low && !x.has_low) {
    take_specials(x, y, count, sum);
  }
  add_products<Float64Format>(x.high, y.high, count, sum);
  if (x.has_low) {
    add_products<Float64Format>(x.low, y.high, count, sum);
  }
  if (y.has_low) {
    add_products<Float64Format>(x.high, y.low, count, sum);
  }
  if (x.has_low && y.has_low) {
    add_products<Float64Format>(x.low, y.low, count, sum);
  }
}

}  // namespace korvex::host
