// SPDX-License-Identifier: Apache-2.0
// The matrix product on the host, as a call without the array of arguments.
#pragma once

#include <cstdint>

namespace korvex::host {

// Matrices lie row by row: a is M x K, b is K x N, the three limbs of the product are M x N.
struct MatrixProduct {
  const double* a;
  const double* b;
  double* limbs[3];
  std::int64_t m, n, k;
};

// At most `threads` host threads work; the result does not depend on how many.
void multiply_on_host(const MatrixProduct& product, int threads);

}  // namespace korvex::host
