// SPDX-License-Identifier: Apache-2.0
// Doubles side by side in one register, for products by residues in doubles: four with AVX2, eight
// with AVX-512. All else that is needed of a processor is the fused multiply-add.
#pragma once

#include <cstdint>
#include <cstring>

#include "korvex/arithmetic/base/portability.h"

#ifdef __FMA__
#include <immintrin.h>
#define KORVEX_HAS_DOUBLE_CODE 1
#endif

namespace korvex::modular {

// False in the library for processors without FMA.
constexpr bool can_run_doubles() {
#ifdef KORVEX_HAS_DOUBLE_CODE
  return true;
#else
  return false;
#endif
}

#ifdef __AVX512F__
constexpr int kDoubleLanes = 8;
#else
constexpr int kDoubleLanes = 4;
#endif

#ifdef KORVEX_HAS_DOUBLE_CODE

using Doubles __attribute__((vector_size(8 * kDoubleLanes))) = double;
using Floats __attribute__((vector_size(4 * kDoubleLanes))) = float;
using Integers __attribute__((vector_size(8 * kDoubleLanes))) = std::int64_t;

KORVEX_INLINE Doubles in_all_lanes(double x) { return x - Doubles{}; }

template <class Vector, class Scalar>
KORVEX_INLINE Vector load(const Scalar* from) {
  Vector x;
  std::memcpy(&x, from, sizeof x);
  return x;
}
template <class Vector, class Scalar>
KORVEX_INLINE void store(Vector x, Scalar* to) {
  std::memcpy(to, &x, sizeof x);
}

KORVEX_INLINE Doubles fma_rn(Doubles a, Doubles b, Doubles c) {
#ifdef __AVX512F__
  return _mm512_fmadd_pd(a, b, c);
#else
  return _mm256_fmadd_pd(a, b, c);
#endif
}

KORVEX_INLINE Doubles magnitude_of(Doubles x) {
  return reinterpret_cast<Doubles>(reinterpret_cast<Integers>(x) & INT64_MAX);
}

// x + shifter - shifter is the integer next to x, for |x| < 2^51; the lowest bit of the sum is 1.
constexpr double kShifter = 0x1.8p+52;

// A modulus and RN(1 / p), in all lanes.
struct DoubleModulus {
  explicit DoubleModulus(int p) : value(in_all_lanes(p)), inverse(in_all_lanes(1.0 / p)) {}
  Doubles value, inverse;
};

// Precondition: x is an integer, |x| <= 2^53. The result is congruent to x, and at most p / 2 + 1
// in magnitude: the product with the rounded inverse is off by 1/p at most, and only the sum is
// rounded.
KORVEX_INLINE Doubles residue_of(Doubles x, const DoubleModulus& modulus) {
  const Doubles quotient =
      fma_rn(x, modulus.inverse, in_all_lanes(kShifter)) - kShifter;  // rounded to an integer
  return fma_rn(-quotient, modulus.value, x);                         // exact
}

#endif

}  // namespace korvex::modular
