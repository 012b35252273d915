// SPDX-License-Identifier: Apache-2.0
// Highest and lowest bits of elements, eight at a time.
#include "korvex/kernels/modular/extents.h"

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/kernels/modular/instructions.h"

#ifdef KORVEX_HAS_MODULAR_CODE
#include <immintrin.h>
#endif

namespace korvex::modular {

Extent ExtentCollector::extent() const {
  if (largest == 0) {
    return {0, 0};
  }
  const auto bits = static_cast<std::uint64_t>(largest);
  if (bits >= arithmetic::kInfinityBits) {
    return {Extent::kNotFinite, 0};
  }
  const double top = arithmetic::from_bits(bits);
  const int highest = 64 - arithmetic::leading_zeros(arithmetic::significand(top));
  return {static_cast<std::int16_t>(highest + arithmetic::shift(top) + arithmetic::kUnitExponent),
          static_cast<std::int16_t>(lowest)};
}

#ifdef KORVEX_HAS_MODULAR_CODE

namespace {

// The exponent of the lowest bit is that of the lowest bit of the significand, as a double, and the
// shift of the significand. Lanes of zero hold `none`.
KORVEX_VNNI_INLINE void collect(__m512d x, __m512i& largest, __m512i& lowest) {
  const __m512i magnitude = _mm512_castpd_si512(_mm512_abs_pd(x));
  largest = _mm512_max_epi64(largest, magnitude);
  const __m512i field = _mm512_srli_epi64(magnitude, arithmetic::kFractionBits);
  const __mmask8 is_normal = _mm512_test_epi64_mask(field, field);
  const __m512i fraction =
      _mm512_and_si512(magnitude, _mm512_set1_epi64(arithmetic::kFractionMask));
  const __m512i significand = _mm512_mask_or_epi64(
      fraction, is_normal, fraction, _mm512_set1_epi64(arithmetic::kFractionMask + 1));
  const __m512i lowest_bit =
      _mm512_and_si512(significand, _mm512_sub_epi64(_mm512_setzero_si512(), significand));
  const __m512i place = _mm512_srli_epi64(_mm512_castpd_si512(_mm512_cvtepi64_pd(lowest_bit)),
                                          arithmetic::kFractionBits);
  const __m512i shift = _mm512_max_epi64(field, _mm512_set1_epi64(1));
  const __m512i exponent = _mm512_add_epi64(
      _mm512_add_epi64(place, shift),
      _mm512_set1_epi64(arithmetic::kUnitExponent - arithmetic::kExponentBias - 1));
  const __mmask8 is_some = _mm512_test_epi64_mask(magnitude, magnitude);
  lowest = _mm512_mask_min_epi64(lowest, is_some, lowest, exponent);
}

}  // namespace

KORVEX_VNNI void collect_along(const double* x, std::int64_t count, ExtentCollector& line) {
  __m512i largest = _mm512_set1_epi64(line.largest);
  __m512i lowest = _mm512_set1_epi64(line.lowest);
  std::int64_t i = 0;
  for (; i + 8 <= count; i += 8) {
    collect(_mm512_loadu_pd(x + i), largest, lowest);
  }
  if (i < count) {
    const auto mask = static_cast<__mmask8>((1 << (count - i)) - 1);
    collect(_mm512_maskz_loadu_pd(mask, x + i), largest, lowest);
  }
  line.largest = _mm512_reduce_max_epi64(largest);
  line.lowest = _mm512_reduce_min_epi64(lowest);
}

KORVEX_VNNI void collect_across(const double* x, std::int64_t count, std::int64_t* largest,
                                std::int64_t* lowest) {
  for (std::int64_t i = 0; i < count; i += 8) {
    const std::int64_t left = count - i;
    const auto mask = static_cast<__mmask8>(left >= 8 ? 255 : (1 << left) - 1);
    __m512i large = _mm512_maskz_loadu_epi64(mask, largest + i);
    __m512i low = _mm512_maskz_loadu_epi64(mask, lowest + i);
    collect(_mm512_maskz_loadu_pd(mask, x + i), large, low);
    _mm512_mask_storeu_epi64(largest + i, mask, large);
    _mm512_mask_storeu_epi64(lowest + i, mask, low);
  }
}

#else

void collect_along(const double*, std::int64_t, ExtentCollector&) {}
void collect_across(const double*, std::int64_t, std::int64_t*, std::int64_t*) {}

#endif

}  // namespace korvex::modular
