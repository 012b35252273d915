// SPDX-License-Identifier: Apache-2.0
// The product of two matrices of residues for one modulus as doubles, reduced again.
//
// Products of residues next to zero are below 2^45; kDoubleDepth of them and what the plane holds
// sum up to 2^53 at most, so every sum is exact, in whatever order.
#pragma once

#include <cstdint>

#include "korvex/kernels/modular/double_lanes.h"

namespace korvex::modular {

constexpr std::int64_t kDoubleDepth = 256;
constexpr int kDoubleBlockRows = kDoubleLanes;
constexpr int kDoubleVectors = 3;  // of columns, side by side
constexpr int kDoubleBlockColumns = kDoubleVectors * kDoubleLanes;
constexpr int kDoubleColumns = 48;  // what lies beside each other is a multiple of it
static_assert(kDoubleColumns % kDoubleBlockColumns == 0);
// What lies beside each other in a tile of a plane: so many columns for each row of a block of
// rows.
constexpr std::int64_t kDoubleTile = std::int64_t{kDoubleBlockRows} * kDoubleBlockColumns;

// The residues of one modulus, block by block, and within a block element by element.
struct DoubleProduct {
  const double* left;
  const double* right;
  std::int64_t row_blocks;
  std::int64_t column_blocks;
  std::int64_t depth;         // elements of a line: kDoubleDepth at most
  std::int64_t block_stride;  // elements of a line from block to block
  int modulus;
};

// A plane of reduced products: tiles of a block of rows by one of columns, those of one block of
// rows beside each other. A residue has less than 24 bits, as a float32 has.
struct DoublePlane {
  float* tiles;
  std::int64_t tiles_of_row;
  bool is_begun;  // whether the products are added to what the plane holds
};

void multiply_double_residues(const DoubleProduct& product, const DoublePlane& plane);

}  // namespace korvex::modular
