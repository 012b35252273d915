// SPDX-License-Identifier: Apache-2.0
// From residues to limbs in doubles: columns of digits, carries, and passes of two_sum over
// vectors.
#include "korvex/kernels/modular/double_recombination.h"

#include <algorithm>

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/kernels/modular/slow_element.h"

namespace korvex::modular {

constexpr int kColumnBits = arithmetic::DoubleResidueSystem::kDigitBits;

DoubleRecombination::DoubleRecombination(const arithmetic::DoubleResidueSystem& system, int bits)
    : count_(system.count()),
      doubles_(system.digits_of(2 * kColumnBits)),
      limit_(arithmetic::power_of_two(bits)) {
  const auto index = [](int i) { return static_cast<std::size_t>(i); };
  for (int t = 0; t < count_; ++t) {
    fractions_[index(t)] = 1.0 / system.modulus(t);
  }
  for (int place = 0; place < 2 * doubles_; ++place) {
    auto& digits = digits_[index(place / kTogether)];
    for (int t = 0; t < count_; ++t) {
      digits[index(t)][index(place % kTogether)] = system.quotient_digit(t, place);
    }
    digits[index(count_)][index(place % kTogether)] = system.product_digit(place);
  }
}

#ifdef KORVEX_HAS_DOUBLE_CODE

// One vector of columns on its way through the phases.
struct RecombinedVector {
  static constexpr int kMost = DoubleRecombination::kMost;
  static constexpr int kMostDoubles = DoubleRecombination::kMostDoubles;
  static constexpr int kTogether = DoubleRecombination::kTogether;

  const DoubleRecombination& constants;
  const DoubleRecombination::Row& row;
  Doubles residues[kMost + 1];  // behind the last: -q
  Doubles columns[2 * kMostDoubles];

  void read(const float* from);
  void find_columns();
  void carry();
  template <int kDoubles>
  unsigned write(int first);
  template <int kDoubles>
  void write_slowly(const Doubles* integers, int first, int columns_left, Integers good,
                    Doubles* limbs) const;
};

namespace {

struct SumAndError {
  Doubles value;
  Doubles error;
};

// a + b and its rounding error, exact. Knuth, TAOCP 2, 4.2.2.
KORVEX_INLINE SumAndError two_sum(Doubles a, Doubles b) {
  const Doubles sum = a + b;
  const Doubles b_part = sum - a;
  const Doubles a_part = sum - b_part;
  return {sum, (a - a_part) + (b - b_part)};
}

// One pass from the last number up to number `first`, which changes no sum.
template <int kDoubles>
KORVEX_INLINE void order(Doubles* x, int first) {
#pragma GCC unroll 8
  for (int i = kDoubles - 2; i >= first; --i) {
    const SumAndError upper = two_sum(x[i], x[i + 1]);
    x[i] = upper.value;
    x[i + 1] = upper.error;
  }
}

// -1 in lanes where limb = RN(limb + next + t) for each |t| <= rest: because rest is zero, ties
// included; or because next and rest, with room for the roundings in them, are less than half of a
// gap.
KORVEX_INLINE Integers is_nearest(Doubles limb, Doubles next, Doubles rest) {
  const Integers is_exact = (rest == Doubles{}) & (limb + next == limb);
  const Doubles more = (rest + magnitude_of(next)) * in_all_lanes(1 + 0x1p-40);
  return is_exact | ((limb + more == limb) & (limb - more == limb));
}

KORVEX_INLINE Doubles nearest_integer(Doubles x) {  // of less than 2^51
  return (x + in_all_lanes(kShifter)) - kShifter;
}

KORVEX_INLINE bool any(Integers lanes) {
#ifdef __AVX512F__
  return _mm512_test_epi64_mask(reinterpret_cast<__m512i>(lanes),
                                reinterpret_cast<__m512i>(lanes)) != 0;
#else
  return _mm256_movemask_pd(reinterpret_cast<__m256d>(lanes)) != 0;
#endif
}

// Factors of 2 to the exponents of so many columns, which may be less than a vector.
KORVEX_INLINE Doubles powers_of_two(const double* exponents) {
  Doubles powers{};
  for (int lane = 0; lane < kDoubleLanes; ++lane) {
    powers[lane] = arithmetic::power_of_two(static_cast<int>(exponents[lane]));
  }
  return powers;
}

}  // namespace

// The residues, and -q: the sum of e_t / p_t, rounded to an integer.
void RecombinedVector::read(const float* from) {
  Doubles sum{};
  for (int t = 0; t < constants.count_; ++t) {
    residues[t] =
        __builtin_convertvector(load<Floats>(from + t * row.plane_stride), Doubles);  // exact
    sum = fma_rn(residues[t], in_all_lanes(constants.fractions_[static_cast<std::size_t>(t)]), sum);
  }
  residues[constants.count_] = -nearest_integer(sum);
}

void RecombinedVector::find_columns() {
  const int groups = (2 * constants.doubles_ + kTogether - 1) / kTogether;
  for (int group = 0; group < groups; ++group) {
    const auto& digits = constants.digits_[static_cast<std::size_t>(group)];
    Doubles sum[kTogether] = {};
    for (int t = 0; t <= constants.count_; ++t) {
#pragma GCC unroll 4
      for (int column = 0; column < kTogether; ++column) {
        const double digit = digits[static_cast<std::size_t>(t)][static_cast<std::size_t>(column)];
        sum[column] = fma_rn(residues[t], in_all_lanes(digit), sum[column]);  // exact
      }
    }
#pragma GCC unroll 4
    for (int column = 0; column < kTogether; ++column) {
      columns[kTogether * group + column] = sum[column];
    }
  }
}

// Columns next to zero, but for the highest, which has all that is left.
void RecombinedVector::carry() {
  const Doubles unit = in_all_lanes(arithmetic::power_of_two(kColumnBits));
  const Doubles inverse = in_all_lanes(arithmetic::power_of_two(-kColumnBits));
  for (int column = 0; column + 1 < 2 * constants.doubles_; ++column) {
    const Doubles over = nearest_integer(columns[column] * inverse);
    columns[column] = fma_rn(-over, unit, columns[column]);  // exact, as the sum
    columns[column + 1] += over;
  }
}

template <int kDoubles>
void RecombinedVector::write_slowly(const Doubles* integers, int first, int columns_left,
                                    Integers good, Doubles* limbs) const {
  for (int lane = 0; lane < std::min(columns_left, kDoubleLanes); ++lane) {
    if (good[lane] == 0) {
      double integer[kDoubles];
      for (int i = 0; i < kDoubles; ++i) {
        integer[i] = integers[i][lane];
      }
      double rounded[arithmetic::kElementLimbs];
      const int exponent = row.exponent + static_cast<int>(row.column_exponents[first + lane]);
      round_element(integer, kDoubles, exponent, rounded);
      for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
        limbs[limb][lane] = rounded[limb];
      }
    }
  }
}

// The limbs of one vector. Returns the lanes that lie beyond the limit.
template <int kDoubles>
unsigned RecombinedVector::write(int first) {
  Doubles x[kDoubles];
#pragma GCC unroll 8
  for (int i = 0; i < kDoubles; ++i) {  // x[0] is the highest
    const int place = kDoubles - 1 - i;
    const Doubles unit = in_all_lanes(arithmetic::power_of_two(2 * kColumnBits * place));
    const Doubles upper = in_all_lanes(arithmetic::power_of_two((2 * place + 1) * kColumnBits));
    x[i] = fma_rn(columns[2 * place + 1], upper, columns[2 * place] * unit);  // exact
  }
  order<kDoubles>(x, 0);
  order<kDoubles>(x, 0);
  order<kDoubles>(x, 1);
  order<kDoubles>(x, 2);
  Doubles rest{};  // of magnitudes, after the next limb
#pragma GCC unroll 8
  for (int i = kDoubles - 1; i > 3; --i) {
    rest += magnitude_of(x[i]);
  }
  const Doubles after = kDoubles > 3 ? x[kDoubles > 3 ? 3 : 0] : Doubles{};
  Integers good = is_nearest(x[2], after, rest);
  rest += magnitude_of(after);
  good &= is_nearest(x[1], x[2], rest);
  rest += magnitude_of(x[2]);
  good &= is_nearest(x[0], x[1], rest);
  const Doubles exponents = load<Doubles>(row.column_exponents + first);
  good &= exponents + in_all_lanes(row.exponent) >= in_all_lanes(arithmetic::kUnitExponent);
  const Doubles factor = in_all_lanes(arithmetic::power_of_two(row.exponent));
  const Doubles column_factor = powers_of_two(row.column_exponents + first);
  Doubles limbs[arithmetic::kElementLimbs];
  for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
    // Exact but where it overflows; and no zero has a sign.
    limbs[limb] = x[limb] * factor * column_factor + Doubles{};
  }
  good &= magnitude_of(limbs[0]) <= in_all_lanes(arithmetic::kLargest);
  const int left = row.columns - first;
  if (any(~good)) [[unlikely]] {
    write_slowly<kDoubles>(x, first, left, good, limbs);
  }
  const auto bytes = sizeof(double) * static_cast<std::size_t>(std::min(left, kDoubleLanes));
  for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
    std::memcpy(row.limbs[limb] + first, &limbs[limb], bytes);
  }
  const Integers beyond = magnitude_of(x[0]) > in_all_lanes(constants.limit_);
  unsigned lanes = 0;
  for (int lane = 0; lane < std::min(left, kDoubleLanes) && any(beyond); ++lane) {
    lanes |= beyond[lane] != 0 ? 1U << lane : 0;
  }
  return lanes;
}

std::uint64_t DoubleRecombination::write_limbs(const Row& row) const {
  using Write = unsigned (RecombinedVector::*)(int);
  // Three doubles at least: those above the integer's are zeros.
  constexpr Write kWrite[kMostDoubles + 1] = {
      &RecombinedVector::write<3>, &RecombinedVector::write<3>, &RecombinedVector::write<3>,
      &RecombinedVector::write<3>, &RecombinedVector::write<4>, &RecombinedVector::write<5>,
      &RecombinedVector::write<6>, &RecombinedVector::write<7>, &RecombinedVector::write<8>};
  RecombinedVector work{*this, row, {}, {}};
  std::uint64_t wrong = 0;
  const float* residues = row.residues;
  int vector = row.first_vector;
  for (int first = 0; first < row.columns; first += kDoubleLanes) {
    work.read(residues);
    work.find_columns();
    work.carry();
    wrong |= std::uint64_t{(work.*kWrite[doubles_])(first)} << first;
    residues += kDoubleLanes;
    if (++vector == kDoubleVectors) {  // to the same row of the next tile
      vector = 0;
      residues += kDoubleTile - kDoubleBlockColumns;
    }
  }
  return wrong;
}

#else

std::uint64_t DoubleRecombination::write_limbs(const Row&) const { return 0; }

#endif

}  // namespace korvex::modular
