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

constexpr int kBlockRows = 12;     // of the left operand, side by side
constexpr int kBlockColumns = 32;  // of the right operand: twice kLines
constexpr int kColumns = 64;       // what lies beside each other in a plane is a multiple of it

// The residues of one modulus, block by block: quad by quad, line by line within a quad. Rows and
// columns are padded to multiples of kLines and of kBlockColumns.
struct ResidueProduct {
  const std::uint8_t* left;   // blocks of kBlockRows rows
  const std::uint8_t* right;  // blocks of kBlockColumns columns
  std::int64_t left_stride;   // bytes from block to block
  std::int64_t right_stride;
  const std::int32_t* sums;  // of each row
  std::int64_t rows;         // without padding
  std::int64_t column_blocks;
  std::int64_t quads;
  int modulus;
};

// A plane of reduced products, a byte each, row by row. Rows are written up to a multiple of four.
struct ResiduePlane {
  std::int8_t* bytes;
  std::int64_t row_stride;
  bool is_begun;  // whether the products are added to what the plane holds
};

void multiply_residues(const ResidueProduct& product, const ResiduePlane& plane);

}  // namespace korvex::modular
