// SPDX-License-Identifier: Apache-2.0
// Lines side by side: eight elements of eight lines at a time, turned in registers.
#include "korvex/kernels/modular/elements.h"

#ifdef __AVX512F__
// g++ 12 warns of the undefined operands inside its own intrinsics (GCC bug 105593).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#endif

namespace korvex::modular {

#ifdef __AVX512F__

void transpose_eight(const double* const (&lines)[8], int i, ElementChunk& chunk, int first_line) {
  __m512d pairs[8];
  __m512d fours[8];
  for (int j = 0; j < 8; j += 2) {
    const __m512d even = _mm512_loadu_pd(lines[j] + i);
    const __m512d odd = _mm512_loadu_pd(lines[j + 1] + i);
    pairs[j] = _mm512_unpacklo_pd(even, odd);      // elements 0, 2, 4, 6 of both
    pairs[j + 1] = _mm512_unpackhi_pd(even, odd);  // 1, 3, 5, 7
  }
  for (int j = 0; j < 2; ++j) {
    fours[j] = _mm512_shuffle_f64x2(pairs[j], pairs[j + 2], 0x88);      // 0, 4 of four lines
    fours[j + 2] = _mm512_shuffle_f64x2(pairs[j], pairs[j + 2], 0xdd);  // 2, 6
    fours[j + 4] = _mm512_shuffle_f64x2(pairs[j + 4], pairs[j + 6], 0x88);
    fours[j + 6] = _mm512_shuffle_f64x2(pairs[j + 4], pairs[j + 6], 0xdd);
  }
  for (int j = 0; j < 4; ++j) {
    _mm512_store_pd(chunk.x[i + j] + first_line,
                    _mm512_shuffle_f64x2(fours[j], fours[j + 4], 0x88));
    _mm512_store_pd(chunk.x[i + j + 4] + first_line,
                    _mm512_shuffle_f64x2(fours[j], fours[j + 4], 0xdd));
  }
}

#else

void transpose_eight(const double* const (&lines)[8], int i, ElementChunk& chunk, int first_line) {
  for (int j = 0; j < 8; ++j) {
    for (int line = 0; line < 8; ++line) {
      chunk.x[i + j][first_line + line] = lines[line][i + j];
    }
  }
}

#endif

}  // namespace korvex::modular
