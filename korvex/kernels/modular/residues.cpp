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
  std::uint64_t negative[kChunk / kQuad];  // a bit for each byte of a quad, line by line
};

KORVEX_VNNI_INLINE __m512i joined(__m256i low, __m256i high) {
  return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}

// The lowest bytes of four elements of sixteen lines, as the bytes of sixteen words.
KORVEX_VNNI_INLINE __m512i quads_of(const __m512i* element) {
  const __m512i lowest =
      _mm512_broadcast_i32x4(_mm_set_epi32(0x0c0c0c0c, 0x08080808, 0x04040404, 0));
  __m512i bytes = element[0];
  bytes = _mm512_mask_shuffle_epi8(bytes, 0x2222222222222222, element[1], lowest);
  bytes = _mm512_mask_shuffle_epi8(bytes, 0x4444444444444444, element[2], lowest);
  return _mm512_mask_shuffle_epi8(bytes, 0x8888888888888888, element[3], lowest);
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
  __m512i sign[kQuad];
  for (int i = 0; i < padded; ++i) {
    const __m512d low_x = _mm512_load_pd(chunk.x[i]);
    const __m512d high_x = _mm512_load_pd(chunk.x[i] + 8);
    const int negative = _mm512_movepi64_mask(_mm512_castpd_si512(low_x)) |
                         _mm512_movepi64_mask(_mm512_castpd_si512(high_x)) << 8;
    sign[i % kQuad] = _mm512_movm_epi32(static_cast<__mmask16>(negative));
    if (i % kQuad == kQuad - 1) {
      digits.negative[i / kQuad] = _mm512_movepi8_mask(quads_of(sign));
    }
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

// The residues of the magnitudes of element i of sixteen lines, in the lowest bytes. The sum, below
// 2^22, is added to the bits of 1.5 * 2^23, which makes a float32 of it; from there on as
// residue_of, with the same residues.
template <int kDwords>
KORVEX_VNNI_INLINE __m512i residues_of(const Digits& digits, int i, const __m512i* powers,
                                       const Modulus& modulus) {
  const __m512 shifter = _mm512_set1_ps(0x1.8p+23F);
  __m512i bits = _mm512_castps_si512(shifter);
  for (int digit = 0; digit < kDwords; ++digit) {
    bits = _mm512_dpbusd_epi32(bits, _mm512_load_si512(digits.digit[digit][i]), powers[digit]);
  }
  const __m512 sum = _mm512_castsi512_ps(bits);
  const __m512 value = _mm512_sub_ps(sum, shifter);                            // exact
  const __m512 shifted = _mm512_fmadd_ps(value, modulus.inverse, shifter);     // rounded to one
  const __m512 quotient = _mm512_sub_ps(shifted, shifter);                     // exact
  return _mm512_castps_si512(_mm512_fnmadd_ps(quotient, modulus.value, sum));  // exact
}

template <int kDwords>
KORVEX_VNNI void reduce(const Digits& digits, int quads, const Weights& weights, Operand operand,
                        const ResiduePlaces& to) {
  const __m512i flip = _mm512_set1_epi8(operand == Operand::kRight ? -128 : 0);
  const __m512i ones = _mm512_set1_epi8(1);
  const auto first_lines = static_cast<__mmask16>((1 << to.lines) - 1);
  const auto last_lines = static_cast<__mmask16>(~first_lines);
  for (int t = 0; t < weights.count; ++t) {
    const Modulus modulus = modulus_of(arithmetic::ResidueSystem::modulus(t));
    __m512i powers[kDwords];
    for (int digit = 0; digit < kDwords; ++digit) {
      powers[digit] = _mm512_set1_epi32(static_cast<int>(
          weights.powers[static_cast<std::size_t>(t)][static_cast<std::size_t>(digit)]));
    }
    std::uint8_t* bytes = to.bytes + t * to.modulus_stride;
    std::uint8_t* rest = to.rest + t * to.modulus_stride - kQuad * to.lines;  // of line 0
    __m512i sums = _mm512_setzero_si512();
    for (int quad = 0; quad < quads; ++quad) {
      __m512i element[kQuad];
#pragma GCC unroll 4
      for (int i = 0; i < kQuad; ++i) {
        element[i] = residues_of<kDwords>(digits, kQuad * quad + i, powers, modulus);
      }
      const __m512i magnitudes = quads_of(element);
      const __m512i residues = _mm512_mask_sub_epi8(magnitudes, digits.negative[quad],
                                                    _mm512_setzero_si512(), magnitudes);
      sums = _mm512_dpbusd_epi32(sums, ones, residues);
      const __m512i flipped = _mm512_xor_si512(residues, flip);
      _mm512_mask_storeu_epi32(bytes + quad * to.quad_stride, first_lines, flipped);
      if (last_lines != 0) {
        _mm512_mask_storeu_epi32(rest + quad * to.quad_stride, last_lines, flipped);
      }
    }
    if (operand == Operand::kLeft) {
      std::int32_t* place = to.sums + t * to.sums_stride;
      _mm512_storeu_si512(place, _mm512_add_epi32(_mm512_loadu_si512(place), sums));
    }
  }
}

}  // namespace

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

void write_residues(const ElementChunk&, const LineScales&, const Weights&, Operand,
                    const ResiduePlaces&) {}

#endif

}  // namespace korvex::modular
