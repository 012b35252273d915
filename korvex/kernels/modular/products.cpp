// SPDX-License-Identifier: Apache-2.0
// Products of bytes: tiles of five or six rows and sixty-four columns stay in registers.
#include "korvex/kernels/modular/products.h"

#include "korvex/arithmetic/base/portability.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/modular/reduction.h"

namespace korvex::modular {

#ifdef KORVEX_HAS_MODULAR_CODE

namespace {

constexpr int kVectors = kColumns / kLines;

// Four vectors of sixteen small integers as bytes: each 128-bit lane holds four of each. Reading
// them back by unpacking restores the order of columns.
KORVEX_VNNI_INLINE __m512i packed(const __m512i* x) {
  return _mm512_packs_epi16(_mm512_packs_epi32(x[0], x[1]), _mm512_packs_epi32(x[2], x[3]));
}

KORVEX_VNNI_INLINE void add_unpacked(__m512i bytes, __m512i* x) {
  const __m512i low = _mm512_unpacklo_epi8(bytes, bytes);
  const __m512i high = _mm512_unpackhi_epi8(bytes, bytes);
  x[0] = _mm512_add_epi32(x[0], _mm512_srai_epi32(_mm512_unpacklo_epi16(low, low), 24));
  x[1] = _mm512_add_epi32(x[1], _mm512_srai_epi32(_mm512_unpackhi_epi16(low, low), 24));
  x[2] = _mm512_add_epi32(x[2], _mm512_srai_epi32(_mm512_unpacklo_epi16(high, high), 24));
  x[3] = _mm512_add_epi32(x[3], _mm512_srai_epi32(_mm512_unpackhi_epi16(high, high), 24));
}

// Rows of a block of kLines against a block of columns; left points to the first row's bytes. Not
// inlined, so that the registers are the loop's alone.
template <int kRows>
KORVEX_VNNI KORVEX_COLD void multiply_rows(const std::uint8_t* left, const std::uint8_t* right,
                                           const std::int32_t* sums, std::int64_t quads, int p,
                                           const ResiduePlane& plane, std::int8_t* to) {
  __m512i sum[kRows][kVectors];
#pragma GCC unroll 8
  for (int row = 0; row < kRows; ++row) {
#pragma GCC unroll 4
    for (int vector = 0; vector < kVectors; ++vector) {
      sum[row][vector] = _mm512_set1_epi32(-128 * sums[row]);
    }
  }
  for (std::int64_t quad = 0; quad < quads; ++quad) {
    __m512i b[kVectors];
#pragma GCC unroll 4
    for (int vector = 0; vector < kVectors; ++vector) {
      b[vector] = _mm512_load_si512(right + 64 * vector);
    }
#pragma GCC unroll 8
    for (int row = 0; row < kRows; ++row) {
      std::int32_t word;
      __builtin_memcpy(&word, left + kQuad * row, sizeof word);
      const __m512i a = _mm512_set1_epi32(word);
#pragma GCC unroll 4
      for (int vector = 0; vector < kVectors; ++vector) {
        sum[row][vector] = _mm512_dpbusd_epi32(sum[row][vector], b[vector], a);
      }
    }
    left += kQuad * kLines;
    right += kQuad * kColumns;
  }
  const Modulus modulus = modulus_of(p);
#pragma GCC unroll 8
  for (int row = 0; row < kRows; ++row) {
    std::int8_t* bytes = to + row * plane.row_stride;
    if (plane.is_begun) {
      add_unpacked(_mm512_load_si512(bytes), sum[row]);
    }
#pragma GCC unroll 4
    for (int vector = 0; vector < kVectors; ++vector) {
      sum[row][vector] = residue_of(sum[row][vector], modulus);
    }
    _mm512_store_si512(bytes, packed(sum[row]));
  }
}

}  // namespace

KORVEX_VNNI void multiply_residues(const ResidueProduct& product, const ResiduePlane& plane) {
  for (std::int64_t column = 0; column < product.column_blocks; ++column) {
    const std::uint8_t* right = product.right + column * product.right_stride;
    for (std::int64_t row = 0; row < product.row_blocks; ++row) {
      const std::uint8_t* left = product.left + row * product.left_stride;
      const std::int32_t* sums = product.sums + row * kLines;
      std::int8_t* to = plane.bytes + row * kLines * plane.row_stride + column * kColumns;
      multiply_rows<6>(left, right, sums, product.quads, product.modulus, plane, to);
      multiply_rows<5>(left + kQuad * 6, right, sums + 6, product.quads, product.modulus, plane,
                       to + 6 * plane.row_stride);
      multiply_rows<5>(left + kQuad * 11, right, sums + 11, product.quads, product.modulus, plane,
                       to + 11 * plane.row_stride);
    }
  }
}

#else

void multiply_residues(const ResidueProduct&, const ResiduePlane&) {}

#endif

}  // namespace korvex::modular
