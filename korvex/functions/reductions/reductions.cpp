// SPDX-License-Identifier: Apache-2.0
// The table of contents of the reductions.
#include "korvex/functions/reductions/reductions.h"

#include "korvex/functions/reductions/parts.h"

namespace korvex {

void define_reductions() {
  define_sum_and_mean();
  define_dot();
  define_kernel_reductions();
  define_extrema();
  define_trace();
  define_exact_decimals();
}

}  // namespace korvex
