// SPDX-License-Identifier: Apache-2.0
// Some rows and some columns of a matrix product, by slices.
#pragma once

#include <cstdint>
#include <vector>

#include "korvex/kernels/host/matrix_product.h"

namespace korvex::host {

// Writes all elements of these rows and of these columns.
void multiply_some_lines(const MatrixProduct& product, const ProductSink& sink,
                         const std::vector<std::int64_t>& rows,
                         const std::vector<std::int64_t>& columns, int threads);

}  // namespace korvex::host
