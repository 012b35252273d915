// SPDX-License-Identifier: Apache-2.0
// One element of a product by residues from its digits, in the long accumulator.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/matrix_product.h"

namespace korvex::modular {

// The limbs of the sum of integers * 2^exponent, rounded by definition: for limbs that under- or
// overflow, and for ties that a later part decides.
KORVEX_COLD inline void round_element(const double* integers, int count, int exponent,
                                      double* limbs) {
  arithmetic::ExactProductSum sum;
  const double first = arithmetic::power_of_two(exponent / 2);
  const double second = arithmetic::power_of_two(exponent - exponent / 2);
  for (int i = 0; i < count; ++i) {
    sum.add_wide_product(arithmetic::mul_rn(integers[i], first), second);  // exact
  }
  sum.round<arithmetic::kElementLimbs>(limbs);
}

}  // namespace korvex::modular
