// SPDX-License-Identifier: Apache-2.0
// From residues to limbs: sums of bytes, carries, and passes of two_sum over vectors.
#include "korvex/kernels/modular/recombination.h"

#include <algorithm>

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/modular/slow_element.h"

#ifdef KORVEX_HAS_MODULAR_CODE
#include <immintrin.h>
#endif

namespace korvex::modular {
namespace {

// 2^16 / p, rounded to an integer.
constexpr int kFractionBits = 16;
std::uint32_t fraction_of(int p) {
  return static_cast<std::uint32_t>(((2 << kFractionBits) / p + 1) / 2);
}

}  // namespace

Recombination::Recombination(const arithmetic::ResidueSystem& system, int bits)
    : count_(system.count()),
      groups_((system.count() + kQuad - 1) / kQuad),
      doubles_(system.digits_of(kDigitsOfDouble * arithmetic::ResidueSystem::kDigitBits)),
      limit_(arithmetic::power_of_two(bits)) {
  const auto index = [](int i) { return static_cast<std::size_t>(i); };
  for (int t = 0; t < count_; ++t) {
    const int shift = 8 * (t % kQuad);
    const auto fraction = fraction_of(system.modulus(t));
    fractions_[0][index(t / kQuad)] |= (fraction >> 8) << shift;
    fractions_[1][index(t / kQuad)] |= (fraction & 255) << shift;
  }
  for (int place = 0; place < 2 * system.digits_of(16); ++place) {
    const auto word = [&](int group) -> std::uint32_t& {
      return digits_[index(place / kDigitsOfDouble)][index(group)][index(place % kDigitsOfDouble)];
    };
    for (int t = 0; t < count_; ++t) {
      word(t / kQuad) |= system.quotient_digit(t, place) << (8 * (t % kQuad));
    }
    word(groups_) = system.product_digit(place);
  }
}

#ifdef KORVEX_HAS_MODULAR_CODE

// One row on its way through the phases.
struct RecombinedRow {
  static constexpr int kVectors = kColumns / kLines;
  static constexpr int kMostGroups = Recombination::kMostGroups;
  static constexpr int kMostDoubles = Recombination::kMostDoubles;
  static constexpr int kLanes = 8;  // of doubles

  RecombinedRow(const Recombination& of, const Recombination::Row& at) : constants(of), row(at) {}

  const Recombination& constants;
  const Recombination::Row& row;
  alignas(64) std::int32_t residues[kMostGroups + 1][kVectors][kLines];
  // Multiples of 2^(48 i), at most half of 2^(48 (i + 1)) in magnitude; their sum is the integer.
  alignas(64) double doubles[kMostDoubles][kColumns];

  KORVEX_VNNI void unpack();
  KORVEX_VNNI void find_quotients();
  KORVEX_VNNI void find_doubles();
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

// The same where a is zero or at least b in magnitude. Dekker 1971.
KORVEX_VNNI_INLINE VectorAndError fast_two_sum(__m512d a, __m512d b) {
  const __m512d sum = _mm512_add_pd(a, b);
  return {sum, _mm512_sub_pd(b, _mm512_sub_pd(sum, a))};
}

// One of the first two passes, where each number is zero or no less than the sum of what follows.
template <int kDoubles>
KORVEX_VNNI_INLINE void order_digits(__m512d* x) {
#pragma GCC unroll 8
  for (int i = kDoubles - 2; i >= 0; --i) {
    const VectorAndError upper = fast_two_sum(x[i], x[i + 1]);
    x[i] = upper.value;
    x[i + 1] = upper.error;
  }
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

// The sums of six columns of radix 256, the lowest first, for sixteen elements.
struct ColumnSums {
  __m512i sum[Recombination::kDigitsOfDouble];
};

// Two vectors' columns of one double. Not inlined, so that the registers are the loop's alone.
KORVEX_VNNI KORVEX_COLD void sum_columns(
    const std::array<std::uint32_t, Recombination::kDigitsOfDouble>* words,
    const std::int32_t* residues, std::int64_t groups, ColumnSums* columns) {
  constexpr int kDigits = Recombination::kDigitsOfDouble;
  __m512i sum[2][kDigits];
#pragma GCC unroll 6
  for (int digit = 0; digit < kDigits; ++digit) {
    sum[0][digit] = _mm512_setzero_si512();
    sum[1][digit] = _mm512_setzero_si512();
  }
  for (std::int64_t group = 0; group <= groups; ++group) {
    const __m512i e0 = _mm512_load_si512(residues);
    const __m512i e1 = _mm512_load_si512(residues + kLines);
#pragma GCC unroll 6
    for (std::size_t digit = 0; digit < kDigits; ++digit) {
      const __m512i word = word_of((*words)[digit]);
      sum[0][digit] = _mm512_dpbusd_epi32(sum[0][digit], word, e0);
      sum[1][digit] = _mm512_dpbusd_epi32(sum[1][digit], word, e1);
    }
    residues += kColumns;
    ++words;
  }
#pragma GCC unroll 6
  for (int digit = 0; digit < kDigits; ++digit) {
    columns[0].sum[digit] = sum[0][digit];
    columns[1].sum[digit] = sum[1][digit];
  }
}

// The columns and a carry as one double: a multiple of 2^(48 place), and half of 2^(48 (place + 1))
// at most in magnitude. The carry becomes that into the next one.
KORVEX_VNNI_INLINE void write_doubles(const ColumnSums& columns, int place, __m512i& carry,
                                      double* to) {
  const auto pair = [&](int i) {
    return _mm512_add_epi32(columns.sum[i], _mm512_slli_epi32(columns.sum[i + 1], 8));
  };
  const __m512i first = _mm512_add_epi32(pair(0), carry);
  const __m512i second = _mm512_add_epi32(pair(2), _mm512_srai_epi32(first, 16));
  const __m512i third = _mm512_add_epi32(pair(4), _mm512_srai_epi32(second, 16));
  // Two digits of radix 2^16 from 0 on; above them one next to zero.
  const __m512i lower = _mm512_or_si512(_mm512_and_si512(first, _mm512_set1_epi32(65535)),
                                        _mm512_slli_epi32(second, 16));
  const __m512i upper = _mm512_srai_epi32(_mm512_slli_epi32(third, 16), 16);
  carry = _mm512_srai_epi32(_mm512_sub_epi32(third, upper), 16);
  const __m512d unit = _mm512_set1_pd(arithmetic::power_of_two(48 * place));
  const __m512d upper_unit = _mm512_set1_pd(arithmetic::power_of_two(48 * place + 32));
  const auto joined = [&](__m256i low, __m256i high) {
    return _mm512_fmadd_pd(_mm512_cvtepi32_pd(high), upper_unit,
                           _mm512_mul_pd(_mm512_cvtepu32_pd(low), unit));  // both exact
  };
  _mm512_store_pd(to, joined(_mm512_castsi512_si256(lower), _mm512_castsi512_si256(upper)));
  _mm512_store_pd(to + 8,
                  joined(_mm512_extracti64x4_epi64(lower, 1), _mm512_extracti64x4_epi64(upper, 1)));
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

}  // namespace

// Four planes at a time, so that a word has the residues of one element for four moduli. Unpacking
// takes four columns of each quarter of a register to one vector, so the columns of each vector are
// spread over the quarters before.
KORVEX_VNNI void RecombinedRow::unpack() {
  const __m512i spread = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  for (int group = 0; group < constants.groups_; ++group) {
    __m512i plane[kQuad];
    for (int i = 0; i < kQuad; ++i) {
      const int t = kQuad * group + i;
      _mm_prefetch(reinterpret_cast<const char*>(row.bytes + t * row.plane_stride + row.row_stride),
                   _MM_HINT_T0);
      plane[i] = t < constants.count_
                     ? _mm512_permutexvar_epi32(spread,
                                                _mm512_load_si512(row.bytes + t * row.plane_stride))
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

// Two vectors at a time, so that the sums of all columns of a double stay in registers.
KORVEX_VNNI void RecombinedRow::find_doubles() {
  constexpr int kTogether = 2;
  for (int vector = 0; vector < kVectors; vector += kTogether) {
    __m512i carry[kTogether] = {};
    for (int place = 0; place < constants.doubles_; ++place) {
      ColumnSums columns[kTogether];
      sum_columns(constants.digits_[static_cast<std::size_t>(place)].data(), residues[0][vector],
                  constants.groups_, columns);
#pragma GCC unroll 2
      for (int i = 0; i < kTogether; ++i) {
        write_doubles(columns[i], place, carry[i], doubles[place] + kLines * (vector + i));
      }
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
    x[i] = _mm512_load_pd(doubles[kDoubles - 1 - i] + first);  // x[0] is the highest
  }
  order_digits<kDoubles>(x);
  order_digits<kDoubles>(x);
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
  for (int place = constants.doubles_; place < kDoubles; ++place) {
    std::fill(std::begin(doubles[place]), std::end(doubles[place]), 0.0);
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
  work.find_doubles();
  switch (doubles_) {
    case 4:
      return work.write<4>();
    case 5:
      return work.write<5>();
    case 6:
      return work.write<6>();
    case 7:
      return work.write<7>();
    default:
      return work.write<3>();
  }
}

#else

std::uint64_t Recombination::write_limbs(const Row&) const { return 0; }

#endif

}  // namespace korvex::modular
