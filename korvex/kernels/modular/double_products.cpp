// SPDX-License-Identifier: Apache-2.0
// Products of doubles: the sums of one tile stay in registers, its columns in the first cache, and
// the rows that meet them in the second.
#include "korvex/kernels/modular/double_products.h"

#include <algorithm>

namespace korvex::modular {

#ifdef KORVEX_HAS_DOUBLE_CODE

namespace {

// Not inlined, so that the registers are the loop's alone.
KORVEX_COLD void multiply_tile(const double* left, const double* right, std::int64_t depth, int p,
                               float* tile, bool is_begun) {
  Doubles sum[kDoubleBlockRows][kDoubleVectors] = {};
  for (std::int64_t k = 0; k < depth; ++k) {
    Doubles b[kDoubleVectors];
#pragma GCC unroll 3
    for (int vector = 0; vector < kDoubleVectors; ++vector) {
      b[vector] = load<Doubles>(right + kDoubleLanes * vector);
    }
#pragma GCC unroll 8
    for (int row = 0; row < kDoubleBlockRows; ++row) {
      const Doubles a = in_all_lanes(left[row]);
#pragma GCC unroll 3
      for (int vector = 0; vector < kDoubleVectors; ++vector) {
        sum[row][vector] = fma_rn(a, b[vector], sum[row][vector]);  // exact
      }
    }
    left += kDoubleBlockRows;
    right += kDoubleBlockColumns;
  }
  const DoubleModulus modulus(p);
#pragma GCC unroll 8
  for (int row = 0; row < kDoubleBlockRows; ++row) {
#pragma GCC unroll 3
    for (int vector = 0; vector < kDoubleVectors; ++vector) {
      Doubles x = sum[row][vector];
      if (is_begun) {
        x += __builtin_convertvector(load<Floats>(tile), Doubles);  // exact
      }
      store(__builtin_convertvector(residue_of(x, modulus), Floats), tile);  // exact
      tile += kDoubleLanes;
    }
  }
}

}  // namespace

void multiply_double_residues(const DoubleProduct& product, const DoublePlane& plane) {
  constexpr std::int64_t kRowsTogether = 96;  // of kDoubleDepth doubles: they fit a second cache
  constexpr std::int64_t kBlocksTogether = kRowsTogether / kDoubleBlockRows;
  for (std::int64_t first = 0; first < product.row_blocks; first += kBlocksTogether) {
    const std::int64_t end = std::min(product.row_blocks, first + kBlocksTogether);
    for (std::int64_t column = 0; column < product.column_blocks; ++column) {
      const double* right = product.right + column * product.block_stride * kDoubleBlockColumns;
      for (std::int64_t row = first; row < end; ++row) {
        multiply_tile(product.left + row * product.block_stride * kDoubleBlockRows, right,
                      product.depth, product.modulus,
                      plane.tiles + (row * plane.tiles_of_row + column) * kDoubleTile,
                      plane.is_begun);
      }
    }
  }
}

#else

void multiply_double_residues(const DoubleProduct&, const DoublePlane&) {}

#endif

}  // namespace korvex::modular
