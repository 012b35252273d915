// SPDX-License-Identifier: Apache-2.0
// The table of contents of the linear algebra.
#include "korvex/functions/linalg/linalg.h"

#include "korvex/functions/linalg/parts.h"

namespace korvex {

void define_linalg() {
  define_matrix_product();
  define_general_product();
  define_convolutions();
  define_solvers();
}

}  // namespace korvex
