// SPDX-License-Identifier: Apache-2.0
// The table of contents of the element-wise operators.
#include "korvex/functions/elementwise/elementwise.h"

#include "korvex/functions/elementwise/parts.h"

namespace korvex {

void define_elementwise() {
  define_sum_difference();
  define_product_quotient();
  define_unary();
  define_rounding_comparison();
  define_composed();
  define_rms_norm();
}

}  // namespace korvex
