// SPDX-License-Identifier: Apache-2.0
// Products of elements of two different number formats: both are converted to doubles, a block at a
// time; 64-bit integers to two doubles, whose products are added apart.
#pragma once

#include <cstdint>

#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/terms.h"

namespace korvex::host {

// An infinity must meet the whole integer, not its halves, which may be 0 or of the other sign:
// counts the products with an element of `x` that is not finite, and puts a zero in its place.
inline void take_specials(ConvertedBlock& x, const ConvertedBlock& integers, std::int64_t count,
                          CountedProductSum& sum) {
  std::uint64_t differences = 0;  // of each element and itself: 0, or NaN where it is not finite
  for (std::int64_t i = 0; i < count; ++i) {
    differences |= arithmetic::to_bits(x.high[i] - x.high[i]);
  }
  if (differences == 0) {
    return;
  }
  for (std::int64_t i = 0; i < count; ++i) {
    if (!arithmetic::is_finite(x.high[i])) {
      sum.counts.note(x.high[i] * integers.rounded(i));
      x.high[i] = 0.0;
    }
  }
}

// Adds the products of converted blocks. Products with upper halves have an adder of their own, as
// their exponents are others.
class MixedProductAdder {
 public:
  explicit MixedProductAdder(CountedProductSum& sum)
      : sum_(sum), high_(sum), middle_(sum), low_(sum) {}

  // Changes the blocks. Precondition: count <= kBlock.
  void add(ConvertedBlock& x, ConvertedBlock& y, std::int64_t count) {
    if (x.has_low && !y.has_low) {
      take_specials(y, x, count, sum_);
    }
    if (y.has_low && !x.has_low) {
      take_specials(x, y, count, sum_);
    }
    high_.add(x.high, y.high, count);
    if (x.has_low) {
      middle_.add(x.low, y.high, count);
    }
    if (y.has_low) {
      middle_.add(x.high, y.low, count);
    }
    if (x.has_low && y.has_low) {
      low_.add(x.low, y.low, count);
    }
  }

 private:
  CountedProductSum& sum_;
  ProductAdder<Float64Format> high_;
  ProductAdder<Float64Format> middle_;
  ProductAdder<Float64Format> low_;
};

}  // namespace korvex::host
