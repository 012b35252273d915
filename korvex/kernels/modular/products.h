// SPDX-License-Identifier: Apache-2.0
// The product of two matrices of residues for one modulus, reduced again.
//
// vpdpbusd multiplies unsigned by signed bytes, four of each a lane, and adds: the right operand's
// residues carry an offset of 128 for it, which the sums of the left operand's residues take back
// before the first product is added. Sums wrap and never saturate; over kDepth elements they stay
// below 2^25 on the way, and the corrected ones at most 2^24.
#pragma once

#include <cstdint>

#include "korvex/kernels/modular/residues.h"

namespace korvex::modular {

constexpr int kColumns = 64;  // of a panel of the right operand, side by side

// The residues of one modulus. Rows and columns are padded to whole blocks.
struct ResidueProduct {
  const std::uint8_t* left;   // block of kLines rows by block: quad by quad, row by row
  const std::uint8_t* right;  // block of kColumns columns by block: quad by quad, column by column
  std::int64_t left_stride;   // bytes from block to block
  std::int64_t right_stride;
  const std::int32_t* sums;  // of each row
  std::int64_t row_blocks;
  std::int64_t column_blocks;
  std::int64_t quads;
  int modulus;
};

// A plane of reduced products: kColumns bytes for each row of each block of columns, in the order
// in which place_in_plane says.
struct ResiduePlane {
  std::int8_t* bytes;
  std::int64_t row_stride;
  bool is_begun;  // whether the products are added to what the plane holds
};

// Where the residue of an element lies in its plane: packing interleaves the four vectors of a
// block of columns, four columns at a time.
constexpr std::int64_t place_in_plane(std::int64_t row, std::int64_t column,
                                      std::int64_t row_stride) {
  const std::int64_t in_block = column % kColumns;
  const std::int64_t vector = in_block / kLines;
  const std::int64_t lane = in_block % kLines;
  return row * row_stride + (column - in_block) + lane / 4 * 16 + vector * 4 + lane % 4;
}

void multiply_residues(const ResidueProduct& product, const ResiduePlane& plane);

}  // namespace korvex::modular
