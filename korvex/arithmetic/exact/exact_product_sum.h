// SPDX-License-Identifier: Apache-2.0
// An exact running sum of products of two doubles: two limbs of a product go into the sum of limbs,
// and a product that has no two limbs, too large or too small for them, goes whole into a long
// accumulator whose unit divides every product.
//
// So a product that overflows, or falls below 2^-1074, counts as what it is; only the sum is
// rounded. A factor that is NaN, or an infinity times zero, makes the sum NaN; an infinity times
// anything else counts as that infinity.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/exact_sum.h"

namespace korvex::arithmetic {

// A product of this size or more that is not 0 has its rounding error exactly: see two_product.
constexpr double kLeastSplitProduct = 0x1p-960;
constexpr int kLeastSplitExponent = -960;

class ExactProductSum : public BasicExactSum<ProductAccumulator> {
 public:
  KORVEX_INLINE void add_product(double x, double y) {
    const double product = mul_rn(x, y);
    if (is_moderate(x) && is_moderate(y) && !is_below(product, kLeastSplitProduct)) {
      add(product);                       // finite
      add(product_error(x, y, product));  // exact
    } else {
      add_wide_product(x, y);
    }
  }

  // The same for a product that is expected not to suit four limbs.
  KORVEX_COLD void add_wide_product(double x, double y) {
    if (!is_finite(x) || !is_finite(y)) {
      note_special(mul_rn(x, y));
    } else if (x != 0 && y != 0) {
      open_wide();
      wide_.add_product(x, y);
    }
  }

 private:
  // Products of two such do not overflow, nor does their splitting.
  static constexpr double kModerate = 0x1p+509;

  KORVEX_INLINE static bool is_below(double x, double limit) { return x < limit && x > -limit; }
  KORVEX_INLINE static bool is_moderate(double x) { return is_below(x, kModerate); }
};

}  // namespace korvex::arithmetic
