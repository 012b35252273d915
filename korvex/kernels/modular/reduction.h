// SPDX-License-Identifier: Apache-2.0
// Residues next to zero of sixteen integers.
#pragma once

#include "korvex/kernels/modular/instructions.h"

#ifdef KORVEX_HAS_MODULAR_CODE

#include <immintrin.h>

namespace korvex::modular {

struct Modulus {
  __m512 value;
  __m512 inverse;
};

KORVEX_VNNI_INLINE Modulus modulus_of(int p) {
  const auto value = static_cast<float>(p);
  return {_mm512_set1_ps(value), _mm512_set1_ps(1.0F / value)};
}

// Precondition: |x| <= 2^24. The result is congruent to x, and at most p / 2 + 1 in magnitude: the
// product with the rounded inverse is off by 1/p at most, and only the sum is rounded.
KORVEX_VNNI_INLINE __m512i residue_of(__m512i x, const Modulus& modulus) {
  const __m512 shifter = _mm512_set1_ps(0x1.8p+23F);
  const __m512 value = _mm512_cvtepi32_ps(x);                                   // exact
  const __m512 shifted = _mm512_fmadd_ps(value, modulus.inverse, shifter);      // rounded to one
  const __m512 quotient = _mm512_sub_ps(shifted, shifter);                      // exact
  return _mm512_cvtps_epi32(_mm512_fnmadd_ps(quotient, modulus.value, value));  // exact
}

}  // namespace korvex::modular

#endif
