// SPDX-License-Identifier: Apache-2.0
// The table of contents of the series functions.
#include "korvex/functions/series/series.h"

#include "korvex/functions/series/parts.h"

namespace korvex {

void define_series() {
  define_circular();
  define_inverse_circular();
  define_atan2();
  define_hyperbolic();
}

}  // namespace korvex
