// SPDX-License-Identifier: Apache-2.0
// The residues of scaled elements in doubles: digits of 28 bits, and a reduction for each modulus.
#include "korvex/kernels/modular/double_residues.h"

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/kernels/modular/double_lanes.h"

namespace korvex::modular {

DoubleWeights double_weights_for(const arithmetic::DoubleResidueSystem& system, Operand operand,
                                 int bits) {
  DoubleWeights weights{};
  weights.count = system.count();
  weights.digits = bits <= kDoubleDigitBits ? 1 : (bits + kDoubleDigitBits - 1) / kDoubleDigitBits;
  for (int t = 0; t < weights.count; ++t) {
    const std::int64_t p = system.modulus(t);
    std::int64_t power = operand == Operand::kLeft ? system.inverse(t) : 1;
    for (int digit = 0; digit < weights.digits; ++digit) {
      weights.powers[static_cast<std::size_t>(t)][static_cast<std::size_t>(digit)] =
          static_cast<double>(2 * power > p ? power - p : power);
      power = (power << kDoubleDigitBits) % p;
    }
  }
  return weights;
}

#ifdef KORVEX_HAS_DOUBLE_CODE

namespace {

// Of one vector of lines.
struct DoubleDigits {
  Doubles digit[kMostDoubleDigits][kChunk];
};

// The factor 2^minus_exponent may be no double, so there are two. Lines that are not in the mask
// count as zeros.
struct VectorScale {
  VectorScale(const LineScales& scales, int first) {
    for (int i = 0; i < kDoubleLanes; ++i) {
      const auto exponent = static_cast<int>(scales.minus_exponent[first + i]);
      const int half = exponent / 2;
      factor[i] = arithmetic::power_of_two(half);
      other_factor[i] = arithmetic::power_of_two(exponent - half);
      mask[i] = -(scales.mask >> (first + i) & 1);
    }
  }

  KORVEX_INLINE Doubles scaled(Doubles x) const {
    const auto taken = reinterpret_cast<Doubles>(reinterpret_cast<Integers>(x) & mask);
    return taken * factor * other_factor;  // exact
  }

  Doubles factor{}, other_factor{};
  Integers mask{};
};

// From above: each step takes the leading bits of a double off, rounded to the nearest digit, which
// leaves a double of at most half a unit.
void split(const ElementChunk& chunk, int first, const VectorScale& scale, int digits,
           DoubleDigits& to) {
  for (int i = 0; i < chunk.count; ++i) {
    Doubles rest = scale.scaled(load<Doubles>(chunk.x[i] + first));
    for (int digit = digits - 1; digit > 0; --digit) {
      const Doubles unit = in_all_lanes(arithmetic::power_of_two(kDoubleDigitBits * digit));
      const Doubles inverse = in_all_lanes(arithmetic::power_of_two(-kDoubleDigitBits * digit));
      const Doubles leading = fma_rn(rest, inverse, in_all_lanes(kShifter)) - kShifter;
      rest = fma_rn(-leading, unit, rest);  // exact
      to.digit[digit][i] = leading;
    }
    to.digit[0][i] = rest;
  }
}

template <int kDigits>
void reduce(const DoubleDigits& digits, int count, const DoubleWeights& weights, double* to,
            std::int64_t modulus_stride, std::int64_t stride) {
  for (int t = 0; t < weights.count; ++t) {
    const DoubleModulus modulus(arithmetic::DoubleResidueSystem::modulus(t));
    const auto& powers = weights.powers[static_cast<std::size_t>(t)];
    double* place = to + t * modulus_stride;
    for (int i = 0; i < count; ++i) {
      Doubles sum = digits.digit[0][i] * powers[0];  // below 2^53, as all sums: exact
#pragma GCC unroll 7
      for (int digit = 1; digit < kDigits; ++digit) {
        sum = fma_rn(digits.digit[digit][i], in_all_lanes(powers[static_cast<std::size_t>(digit)]),
                     sum);
      }
      store(residue_of(sum, modulus), place);
      place += stride;
    }
  }
}

}  // namespace

void write_double_residues(const ElementChunk& chunk, const LineScales& scales,
                           const DoubleWeights& weights, const DoublePlaces& to) {
  constexpr decltype(&reduce<1>) kReduce[kMostDoubleDigits] = {
      reduce<1>, reduce<2>, reduce<3>, reduce<4>, reduce<5>, reduce<6>, reduce<7>};
  DoubleDigits digits;
  for (int first = 0; first < kLines; first += kDoubleLanes) {
    const std::int64_t line = to.line + first;
    const std::int64_t in_block = line % to.block_lines;
    split(chunk, first, VectorScale(scales, first), weights.digits, digits);
    kReduce[weights.digits - 1](digits, chunk.count, weights,
                                to.residues + (line - in_block) * to.depth + in_block,
                                to.modulus_stride, to.block_lines);
  }
}

#else

void write_double_residues(const ElementChunk&, const LineScales&, const DoubleWeights&,
                           const DoublePlaces&) {}

#endif

}  // namespace korvex::modular
