// SPDX-License-Identifier: Apache-2.0
// The residues of scaled elements: digits of 32 bits, and a reduction for each modulus.
#include "korvex/kernels/modular/residues.h"

#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/modular/reduction.h"

namespace korvex::modular {

Weights weights_for(const arithmetic::ResidueSystem& system, Operand operand, int bits) {
  Weights weights{};
  weights.count = system.count();
  weights.dwords = bits <= 32 ? 1 : (bits + 31) / 32;
  for (int t = 0; t < weights.count; ++t) {
    const int p = system.modulus(t);
    int power = operand == Operand::kLeft ? system.inverse(t) : 1;
    for (int place = 0; place < 4 * weights.dwords; ++place) {
      const int balanced = 2 * power > p ? power - p : power;
      weights.powers[static_cast<std::size_t>(t)][static_cast<std::size_t>(place / 4)] |=
          static_cast<std::uint32_t>(balanced & 255) << (8 * (place % 4));
      power = power * 256 % p;
    }
  }
  return weights;
}

#ifdef KORVEX_HAS_MODULAR_CODE

namespace {

struct Digits {
  alignas(64) std::uint32_t digit[kMostDwords][kChunk][kLines];
  std::uint16_t negative[kChunk];
};

KORVEX_VNNI_INLINE __m512i joined(__m256i low, __m256i high) {
  return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}

// Takes the digit of 2^exponent out of eight magnitudes below 2^(exponent + 32): exact, as a part
// of a double's bits is a double.
KORVEX_VNNI_INLINE __m256i take_digit(__m512d& magnitude, __m512d unit, __m512d reciprocal) {
  const __m512d digit = _mm512_roundscale_pd(_mm512_mul_pd(magnitude, reciprocal),
                                             _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  magnitude = _mm512_fnmadd_pd(digit, unit, magnitude);
  return _mm512_cvttpd_epu32(digit);
}

// The factor 2^minus_exponent may be no double, so the exponents are scaled.
KORVEX_VNNI_INLINE __m512d scaled_magnitude(__m512d x, __m512d minus_exponent, __mmask8 mask) {
  return _mm512_abs_pd(_mm512_maskz_scalef_pd(mask, x, minus_exponent));
}

KORVEX_VNNI void split(const ElementChunk& chunk, int padded, const LineScales& scales, int dwords,
                       Digits& digits) {
  const __m512d low_exponent = _mm512_load_pd(scales.minus_exponent);
  const __m512d high_exponent = _mm512_load_pd(scales.minus_exponent + 8);
  const auto low_mask = static_cast<__mmask8>(scales.mask & 255);
  const auto high_mask = static_cast<__mmask8>(scales.mask >> 8);
  for (int i = 0; i < padded; ++i) {
    const __m512d low_x = _mm512_load_pd(chunk.x[i]);
    const __m512d high_x = _mm512_load_pd(chunk.x[i] + 8);
    digits.negative[i] =
        static_cast<std::uint16_t>(_mm512_movepi64_mask(_mm512_castpd_si512(low_x)) |
                                   _mm512_movepi64_mask(_mm512_castpd_si512(high_x)) << 8);
    __m512d low = scaled_magnitude(low_x, low_exponent, low_mask);
    __m512d high = scaled_magnitude(high_x, high_exponent, high_mask);
    for (int digit = dwords - 1; digit > 0; --digit) {
      const __m512d unit = _mm512_castsi512_pd(
          _mm512_set1_epi64(static_cast<std::int64_t>(1023 + 32 * digit) << 52));
      const __m512d reciprocal = _mm512_castsi512_pd(
          _mm512_set1_epi64(static_cast<std::int64_t>(1023 - 32 * digit) << 52));
      const __m256i low_digit = take_digit(low, unit, reciprocal);
      const __m256i high_digit = take_digit(high, unit, reciprocal);
      _mm512_store_si512(digits.digit[digit][i], joined(low_digit, high_digit));
    }
    _mm512_store_si512(digits.digit[0][i],
                       joined(_mm512_cvttpd_epu32(low), _mm512_cvttpd_epu32(high)));
  }
}

// The residues of element i of sixteen lines.
template <int kDwords>
KORVEX_VNNI_INLINE __m512i residues_of(const Digits& digits, int i, const __m512i* powers,
                                       const Modulus& modulus) {
  __m512i sum = _mm512_setzero_si512();
  for (int digit = 0; digit < kDwords; ++digit) {
    sum = _mm512_dpbusd_epi32(sum, _mm512_load_si512(digits.digit[digit][i]), powers[digit]);
  }
  const __m512i residue = residue_of(sum, modulus);
  return _mm512_mask_sub_epi32(residue, digits.negative[i], _mm512_setzero_si512(), residue);
}

// Four elements of sixteen lines, as the bytes of sixteen words.
KORVEX_VNNI_INLINE __m512i quads_of(__m512i r0, __m512i r1, __m512i r2, __m512i r3) {
  const __m512i by_element =
      _mm512_packs_epi16(_mm512_packs_epi32(r0, r1), _mm512_packs_epi32(r2, r3));
  const __m512i by_line =
      _mm512_broadcast_i32x4(_mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
  return _mm512_shuffle_epi8(by_element, by_line);
}

template <int kDwords>
KORVEX_VNNI void reduce(const Digits& digits, int quads, const Weights& weights, Operand operand,
                        const ResiduePlaces& to) {
  const __m512i flip = _mm512_set1_epi8(operand == Operand::kRight ? -128 : 0);
  const __m512i ones = _mm512_set1_epi8(1);
  for (int t = 0; t < weights.count; ++t) {
    const Modulus modulus = modulus_of(arithmetic::ResidueSystem::modulus(t));
    __m512i powers[kDwords];
    for (int digit = 0; digit < kDwords; ++digit) {
      powers[digit] = _mm512_set1_epi32(static_cast<int>(
          weights.powers[static_cast<std::size_t>(t)][static_cast<std::size_t>(digit)]));
    }
    std::uint8_t* bytes = to.bytes + t * to.modulus_stride;
    __m512i sums = _mm512_setzero_si512();
    for (int quad = 0; quad < quads; ++quad) {
      const int i = kQuad * quad;
      const __m512i residues = quads_of(residues_of<kDwords>(digits, i, powers, modulus),
                                        residues_of<kDwords>(digits, i + 1, powers, modulus),
                                        residues_of<kDwords>(digits, i + 2, powers, modulus),
                                        residues_of<kDwords>(digits, i + 3, powers, modulus));
      sums = _mm512_dpbusd_epi32(sums, ones, residues);
      _mm512_store_si512(bytes + quad * to.quad_stride, _mm512_xor_si512(residues, flip));
    }
    if (operand == Operand::kLeft) {
      std::int32_t* place = to.sums + t * to.sums_stride;
      _mm512_storeu_si512(place, _mm512_add_epi32(_mm512_loadu_si512(place), sums));
    }
  }
}

}  // namespace

KORVEX_VNNI void transpose_eight(const double* const (&lines)[8], int i, ElementChunk& chunk,
                                 int first_line) {
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

void write_residues(const ElementChunk& chunk, const LineScales& scales, const Weights& weights,
                    Operand operand, const ResiduePlaces& to) {
  const int quads = (chunk.count + kQuad - 1) / kQuad;
  Digits digits;
  split(chunk, kQuad * quads, scales, weights.dwords, digits);
  constexpr decltype(&reduce<1>) kReduce[kMostDwords] = {reduce<1>, reduce<2>, reduce<3>,
                                                         reduce<4>, reduce<5>, reduce<6>};
  kReduce[weights.dwords - 1](digits, quads, weights, operand, to);
}

#else

void transpose_eight(const double* const (&)[8], int, ElementChunk&, int) {}
void write_residues(const ElementChunk&, const LineScales&, const Weights&, Operand,
                    const ResiduePlaces&) {}

#endif

}  // namespace korvex::modular
