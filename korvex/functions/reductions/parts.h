// SPDX-License-Identifier: Apache-2.0
// The parts of the reductions, each defined by its own file.
#pragma once

namespace korvex {

void define_sum_and_mean();
void define_dot();
void define_kernel_reductions();
void define_extrema();
void define_trace();
void define_exact_decimals();

}  // namespace korvex
