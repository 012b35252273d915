// SPDX-License-Identifier: Apache-2.0
// The parts of the element-wise operators, each defined by its own file.
#pragma once

namespace korvex {

void define_sum_difference();
void define_product_quotient();
void define_unary();
void define_rounding_comparison();
void define_composed();
void define_rms_norm();

}  // namespace korvex
