// SPDX-License-Identifier: Apache-2.0
// Products of bytes: the sums of twelve rows and thirty-two columns stay in registers, and what is
// multiplied into them in the first cache.
#include "korvex/kernels/modular/products.h"

#include "korvex/arithmetic/base/portability.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/modular/reduction.h"

namespace korvex::modular {

#ifdef KORVEX_HAS_MODULAR_CODE

namespace {

constexpr int kVectors = kBlockColumns / kLines;

// A block of rows, or the first of it, against a block of columns, while half of the next block of
// columns is fetched. Not inlined, so that the registers are the loop's alone.
template <int kRows>
KORVEX_VNNI KORVEX_COLD void multiply_rows(const std::uint8_t* left, const std::uint8_t* right,
                                           const std::int32_t* sums, std::int64_t quads, int p,
                                           const ResiduePlane& plane, std::int8_t* to,
                                           const std::uint8_t* next) {
  __m512i sum[kRows][kVectors];
#pragma GCC unroll 12
  for (int row = 0; row < kRows; ++row) {
#pragma GCC unroll 2
    for (int vector = 0; vector < kVectors; ++vector) {
      sum[row][vector] = _mm512_set1_epi32(-128 * sums[row]);
    }
  }
  for (std::int64_t quad = 0; quad < quads; ++quad) {
    __m512i b[kVectors];
#pragma GCC unroll 2
    for (int vector = 0; vector < kVectors; ++vector) {
      b[vector] = _mm512_load_si512(right + 64 * vector);
    }
#pragma GCC unroll 12
    for (int row = 0; row < kRows; ++row) {
      std::int32_t word;
      __builtin_memcpy(&word, left + kQuad * row, sizeof word);
      const __m512i a = _mm512_set1_epi32(word);
#pragma GCC unroll 2
      for (int vector = 0; vector < kVectors; ++vector) {
        sum[row][vector] = _mm512_dpbusd_epi32(sum[row][vector], b[vector], a);
      }
    }
    _mm_prefetch(reinterpret_cast<const char*>(next), _MM_HINT_T1);
    next += 64;
    left += kQuad * kBlockRows;
    right += kQuad * kBlockColumns;
  }
  const Modulus modulus = modulus_of(p);
#pragma GCC unroll 12
  for (int row = 0; row < kRows; ++row) {
#pragma GCC unroll 2
    for (int vector = 0; vector < kVectors; ++vector) {
      auto* bytes = reinterpret_cast<__m128i*>(to + row * plane.row_stride + kLines * vector);
      __m512i x = sum[row][vector];
      if (plane.is_begun) {
        x = _mm512_add_epi32(x, _mm512_cvtepi8_epi32(_mm_load_si128(bytes)));
      }
      _mm_store_si128(bytes, _mm512_cvtepi32_epi8(residue_of(x, modulus)));
    }
  }
}

}  // namespace

// A block of columns stays in the first cache while those of rows pass by.
KORVEX_VNNI void multiply_residues(const ResidueProduct& product, const ResiduePlane& plane) {
  for (std::int64_t column = 0; column < product.column_blocks; ++column) {
    const std::uint8_t* right = product.right + column * product.right_stride;
    const std::uint8_t* left = product.left;
    const std::uint8_t* next = right + product.right_stride;
    for (std::int64_t row = 0; row < product.rows; row += kBlockRows) {
      const std::int64_t rows = product.rows - row;
      const auto multiply = rows > 8   ? &multiply_rows<kBlockRows>
                            : rows > 4 ? &multiply_rows<8>
                                       : &multiply_rows<4>;
      multiply(left, right, product.sums + row, product.quads, product.modulus, plane,
               plane.bytes + row * plane.row_stride + column * kBlockColumns,
               next + row / kBlockRows % 2 * 64 * product.quads);
      left += product.left_stride;
    }
  }
}

#else

void multiply_residues(const ResidueProduct&, const ResiduePlane&) {}

#endif

}  // namespace korvex::modular
