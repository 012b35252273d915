// SPDX-License-Identifier: Apache-2.0
// From residues to limbs: sums of bytes, carries, and passes of two_sum over vectors.
#include "korvex/kernels/modular/recombination.h"

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/kernels/modular/instructions.h"

#ifdef KORVEX_HAS_MODULAR_CODE
#include <immintrin.h>
#endif

namespace korvex::modular {

Recombination::Recombination(const arithmetic::ResidueSystem& system, int bits)
    : count_(system.count()),
      groups_((system.count() + kQuad - 1) / kQuad),
      wide_digits_(system.wide_digits()),
      limit_(arithmetic::power_of_two(bits)) {
  const auto index = [](int i) { return static_cast<std::size_t>(i); };
  for (int t = 0; t < count_; ++t) {
    const int shift = 8 * (t % kQuad);
    const auto fraction = static_cast<std::uint32_t>(system.fraction(t));
    fractions_[0][index(t / kQuad)] |= (fraction >> 8) << shift;
    fractions_[1][index(t / kQuad)] |= (fraction & 255) << shift;
    for (int place = 0; place < 2 * wide_digits_; ++place) {
      digits_[index(place)][index(t / kQuad)] |=
          static_cast<std::uint32_t>(system.quotient_digit(t, place)) << shift;
    }
  }
  for (int place = 0; place < 2 * wide_digits_; ++place) {
    digits_[index(place)][index(groups_)] = static_cast<std::uint32_t>(system.product_digit(place));
  }
}

#ifdef KORVEX_HAS_MODULAR_CODE

// One row on its way through the phases.
struct RecombinedRow {
  static constexpr int kVectors = kColumns / kLines;
  static constexpr int kMostGroups = Recombination::kMostGroups;
  static constexpr int kMostWide = Recombination::kMostDigits / 2;
  static constexpr int kLanes = 8;  // of doubles
  static constexpr int kWideOfDouble = 3;

  RecombinedRow(const Recombination& of, const Recombination::Row& at) : constants(of), row(at) {}

  const Recombination& constants;
  const Recombination::Row& row;
  alignas(64) std::int32_t residues[kMostGroups + 1][kVectors][kLines];
  // Balanced, radix 2^16, lowest first; up to a multiple of three there are zeros.
  alignas(64) std::int32_t digits[kMostWide + kWideOfDouble][kColumns];

  KORVEX_VNNI void unpack();
  KORVEX_VNNI void find_quotients();
  KORVEX_VNNI void find_digits();
  template <int kDoubles>
  KORVEX_VNNI std::uint64_t write();
  template <int kDoubles>
  KORVEX_VNNI __mmask8 write_lanes(int first);
  template <int kDoubles>
  KORVEX_VNNI static void write_slowly(const __m512d* integers, __m512d exponents, unsigned lanes,
                                       __m512d* limbs);
};

namespace {

KORVEX_VNNI_INLINE __m512i word_of(std::uint32_t word) {
  return _mm512_set1_epi32(static_cast<int>(word));
}

struct VectorAndError {
  __m512d value;
  __m512d error;
};

// a + b and its rounding error, exact. Knuth, TAOCP 2, 4.2.2.
KORVEX_VNNI_INLINE VectorAndError two_sum(__m512d a, __m512d b) {
  const __m512d sum = _mm512_add_pd(a, b);
  const __m512d b_part = _mm512_sub_pd(sum, a);
  const __m512d a_part = _mm512_sub_pd(sum, b_part);
  return {sum, _mm512_add_pd(_mm512_sub_pd(a, a_part), _mm512_sub_pd(b, b_part))};
}

// One pass of two_sum from the last number up to number `first`.
template <int kDoubles>
KORVEX_VNNI_INLINE void order(__m512d* x, int first) {
#pragma GCC unroll 8
  for (int i = kDoubles - 2; i >= first; --i) {
    const VectorAndError upper = two_sum(x[i], x[i + 1]);
    x[i] = upper.value;
    x[i + 1] = upper.error;
  }
}

KORVEX_VNNI_INLINE __m512d doubles_of(const std::int32_t* x) {
  return _mm512_cvtepi32_pd(_mm256_load_si256(reinterpret_cast<const __m256i*>(x)));
}

// Lanes where limb = RN(limb + next + t) for each |t| <= rest: because rest is zero, ties included;
// or because next and rest, with room for the roundings in them, are less than half of a gap.
KORVEX_VNNI_INLINE __mmask8 is_nearest(__m512d limb, __m512d next, __m512d rest) {
  const __mmask8 is_exact = _mm512_cmp_pd_mask(rest, _mm512_setzero_pd(), _CMP_EQ_OQ) &
                            _mm512_cmp_pd_mask(_mm512_add_pd(limb, next), limb, _CMP_EQ_OQ);
  const __m512d more =
      _mm512_mul_pd(_mm512_add_pd(rest, _mm512_abs_pd(next)), _mm512_set1_pd(1 + 0x1p-40));
  return is_exact | (_mm512_cmp_pd_mask(_mm512_add_pd(limb, more), limb, _CMP_EQ_OQ) &
                     _mm512_cmp_pd_mask(_mm512_sub_pd(limb, more), limb, _CMP_EQ_OQ));
}

// The limbs of the sum of integers * 2^exponent.
KORVEX_COLD void round_element(const double* integers, int count, int exponent, double* limbs) {
  arithmetic::ExactProductSum sum;
  const double first = arithmetic::power_of_two(exponent / 2);
  const double second = arithmetic::power_of_two(exponent - exponent / 2);
  for (int i = 0; i < count; ++i) {
    sum.add_wide_product(arithmetic::mul_rn(integers[i], first), second);  // exact
  }
  sum.round<arithmetic::kElementLimbs>(limbs);
}

}  // namespace

// Four planes at a time, so that a word has the residues of one element for four moduli.
KORVEX_VNNI void RecombinedRow::unpack() {
  for (int group = 0; group < constants.groups_; ++group) {
    __m512i plane[kQuad];
    for (int i = 0; i < kQuad; ++i) {
      const int t = kQuad * group + i;
      plane[i] = t < constants.count_ ? _mm512_load_si512(row.bytes + t * row.plane_stride)
                                      : _mm512_setzero_si512();
    }
    const __m512i low01 = _mm512_unpacklo_epi8(plane[0], plane[1]);
    const __m512i high01 = _mm512_unpackhi_epi8(plane[0], plane[1]);
    const __m512i low23 = _mm512_unpacklo_epi8(plane[2], plane[3]);
    const __m512i high23 = _mm512_unpackhi_epi8(plane[2], plane[3]);
    _mm512_store_si512(residues[group][0], _mm512_unpacklo_epi16(low01, low23));
    _mm512_store_si512(residues[group][1], _mm512_unpackhi_epi16(low01, low23));
    _mm512_store_si512(residues[group][2], _mm512_unpacklo_epi16(high01, high23));
    _mm512_store_si512(residues[group][3], _mm512_unpackhi_epi16(high01, high23));
  }
}

// -q as the lowest byte of a word: the sum of e_t * 2^16 / p_t, rounded to a multiple of 2^16.
KORVEX_VNNI void RecombinedRow::find_quotients() {
  const __m512i half = _mm512_set1_epi32(1 << 15);
  for (int vector = 0; vector < kVectors; ++vector) {
    __m512i upper = _mm512_setzero_si512();
    __m512i lower = half;
    for (int group = 0; group < constants.groups_; ++group) {
      const auto place = static_cast<std::size_t>(group);
      const __m512i e = _mm512_load_si512(residues[group][vector]);
      upper = _mm512_dpbusd_epi32(upper, word_of(constants.fractions_[0][place]), e);
      lower = _mm512_dpbusd_epi32(lower, word_of(constants.fractions_[1][place]), e);
    }
    const __m512i quotient =
        _mm512_srai_epi32(_mm512_add_epi32(_mm512_slli_epi32(upper, 8), lower), 16);
    const __m512i negated = _mm512_sub_epi32(_mm512_setzero_si512(), quotient);
    _mm512_store_si512(residues[constants.groups_][vector],
                       _mm512_and_si512(negated, _mm512_set1_epi32(255)));
  }
}

KORVEX_VNNI void RecombinedRow::find_digits() {
  __m512i carry[kVectors] = {};
  for (int wide = 0; wide < constants.wide_digits_; ++wide) {
    const auto& lower_bytes = constants.digits_[static_cast<std::size_t>(2 * wide)];
    const auto& upper_bytes = constants.digits_[static_cast<std::size_t>(2 * wide + 1)];
    __m512i lower[kVectors];
    __m512i upper[kVectors];
#pragma GCC unroll 4
    for (int vector = 0; vector < kVectors; ++vector) {
      lower[vector] = carry[vector];
      upper[vector] = _mm512_setzero_si512();
    }
    for (int group = 0; group <= constants.groups_; ++group) {
      const __m512i lower_word = word_of(lower_bytes[static_cast<std::size_t>(group)]);
      const __m512i upper_word = word_of(upper_bytes[static_cast<std::size_t>(group)]);
#pragma GCC unroll 4
      for (int vector = 0; vector < kVectors; ++vector) {
        const __m512i e = _mm512_load_si512(residues[group][vector]);
        lower[vector] = _mm512_dpbusd_epi32(lower[vector], lower_word, e);
        upper[vector] = _mm512_dpbusd_epi32(upper[vector], upper_word, e);
      }
    }
#pragma GCC unroll 4
    for (int vector = 0; vector < kVectors; ++vector) {
      const __m512i sum = _mm512_add_epi32(lower[vector], _mm512_slli_epi32(upper[vector], 8));
      const __m512i digit = _mm512_srai_epi32(_mm512_slli_epi32(sum, 16), 16);
      carry[vector] = _mm512_srai_epi32(_mm512_sub_epi32(sum, digit), 16);
      _mm512_store_si512(digits[wide] + kLines * vector, digit);
    }
  }
}

template <int kDoubles>
KORVEX_VNNI void RecombinedRow::write_slowly(const __m512d* integers, __m512d exponents,
                                             unsigned lanes, __m512d* limbs) {
  alignas(64) double exponent[kLanes];
  alignas(64) double x[kDoubles][kLanes];
  alignas(64) double out[arithmetic::kElementLimbs][kLanes];
  _mm512_store_pd(exponent, exponents);
  for (int i = 0; i < kDoubles; ++i) {
    _mm512_store_pd(x[i], integers[i]);
  }
  for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
    _mm512_store_pd(out[limb], limbs[limb]);
  }
  for (int lane = 0; lane < kLanes; ++lane) {
    if ((lanes >> lane & 1) != 0) {
      double integer[kDoubles];
      double rounded[arithmetic::kElementLimbs];
      for (int i = 0; i < kDoubles; ++i) {
        integer[i] = x[i][lane];
      }
      round_element(integer, kDoubles, static_cast<int>(exponent[lane]), rounded);
      for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
        out[limb][lane] = rounded[limb];
      }
    }
  }
  for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
    limbs[limb] = _mm512_load_pd(out[limb]);
  }
}

// The limbs of eight columns. Returns the lanes that lie beyond the limit.
template <int kDoubles>
KORVEX_VNNI __mmask8 RecombinedRow::write_lanes(int first) {
  __m512d x[kDoubles];
#pragma GCC unroll 8
  for (int i = 0; i < kDoubles; ++i) {
    const int place = kDoubles - 1 - i;  // x[0] is the highest
    const auto* digit = digits + kWideOfDouble * place;
    const double unit = arithmetic::power_of_two(48 * place);
    const __m512d upper = _mm512_fmadd_pd(doubles_of(digit[2] + first), _mm512_set1_pd(0x1p+16),
                                          doubles_of(digit[1] + first));  // exact
    const __m512d whole =
        _mm512_fmadd_pd(upper, _mm512_set1_pd(0x1p+16), doubles_of(digit[0] + first));  // exact
    x[i] = _mm512_mul_pd(whole, _mm512_set1_pd(unit));                                  // exact
  }
  order<kDoubles>(x, 0);
  order<kDoubles>(x, 0);
  order<kDoubles>(x, 1);
  order<kDoubles>(x, 2);
  __m512d rest = _mm512_setzero_pd();  // of magnitudes, after the next limb
#pragma GCC unroll 8
  for (int i = kDoubles - 1; i > 3; --i) {
    rest = _mm512_add_pd(rest, _mm512_abs_pd(x[i]));
  }
  const __m512d after = kDoubles > 3 ? x[kDoubles > 3 ? 3 : 0] : _mm512_setzero_pd();
  __mmask8 good = is_nearest(x[2], after, rest);
  rest = _mm512_add_pd(rest, _mm512_abs_pd(after));
  good &= is_nearest(x[1], x[2], rest);
  rest = _mm512_add_pd(rest, _mm512_abs_pd(x[2]));
  good &= is_nearest(x[0], x[1], rest);
  const __m512d exponents =
      _mm512_add_pd(_mm512_set1_pd(row.exponent), _mm512_load_pd(row.column_exponents + first));
  good &= _mm512_cmp_pd_mask(exponents, _mm512_set1_pd(arithmetic::kUnitExponent), _CMP_GE_OQ);
  __m512d limbs[arithmetic::kElementLimbs];
  for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
    // Exact but where it overflows; and no zero has a sign.
    limbs[limb] = _mm512_add_pd(_mm512_scalef_pd(x[limb], exponents), _mm512_setzero_pd());
  }
  good &=
      _mm512_cmp_pd_mask(_mm512_abs_pd(limbs[0]), _mm512_set1_pd(arithmetic::kLargest), _CMP_LE_OQ);
  const int left = row.columns - first;
  const auto wanted = static_cast<__mmask8>(left >= kLanes ? 255 : (1 << left) - 1);
  const auto bad = static_cast<__mmask8>(~good & wanted);
  if (bad != 0) [[unlikely]] {
    write_slowly<kDoubles>(x, exponents, bad, limbs);
  }
  for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
    _mm512_mask_storeu_pd(row.limbs[limb] + first, wanted, limbs[limb]);
  }
  return _mm512_mask_cmp_pd_mask(wanted, _mm512_abs_pd(x[0]), _mm512_set1_pd(constants.limit_),
                                 _CMP_GT_OQ);
}

template <int kDoubles>
KORVEX_VNNI std::uint64_t RecombinedRow::write() {
  for (int wide = constants.wide_digits_; wide < kWideOfDouble * kDoubles; ++wide) {
    for (std::int32_t& digit : digits[wide]) {
      digit = 0;
    }
  }
  std::uint64_t wrong = 0;
  for (int first = 0; first < row.columns; first += kLanes) {
    wrong |= std::uint64_t{write_lanes<kDoubles>(first)} << first;
  }
  return wrong;
}

KORVEX_VNNI std::uint64_t Recombination::write_limbs(const Row& row) const {
  RecombinedRow work(*this, row);
  work.unpack();
  work.find_quotients();
  work.find_digits();
  switch ((wide_digits_ + RecombinedRow::kWideOfDouble - 1) / RecombinedRow::kWideOfDouble) {
    case 4:
      return work.write<4>();
    case 5:
      return work.write<5>();
    case 6:
      return work.write<6>();
    case 7:
      return work.write<7>();
    case 8:
      return work.write<8>();
    default:
      return work.write<3>();
  }
}

#else

std::uint64_t Recombination::write_limbs(const Row&) const { return 0; }

#endif

}  // namespace korvex::modular
