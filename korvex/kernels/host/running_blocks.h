// SPDX-License-Identifier: Apache-2.0
// Running sums of a block of doubles, several at a time: the first two canonical limbs of each.
//
// Each element is cut to parts on fixed grids: the multiple of the coarsest that is nearest to it,
// of what is left that of the next, and so on; the last part is the whole rest. The grids are
// chosen so that sums of parts over the block, with those of the sum before it, are exact doubles:
//   - every addend is a multiple of 2^bottom, and every sum below 2^top in magnitude;
//   - a part after the first is at most half a unit of the grid before, 2^(kBits - 1) of its own,
//   so
//     kBlock of them and four more stay below 2^53 of its own;
//   - sums of the first part are below 2^(top + 1), at most 2^53 of its units.
// As all these sums are exact, they may be taken in any order: by steps of doubling distance inside
// of a register. Two parts have the limbs of their sum by one two_sum; more parts have them where a
// test of what the second limb leaves decides.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::host {

// ---- Moving lanes up, with zeros below, and the last lane everywhere

template <int kDistance>
KORVEX_INLINE arithmetic::HostDoubles moved_up(arithmetic::HostDoubles x) {
  const arithmetic::HostDoubles::Vector zero = {};
#if defined(__AVX512F__)
  constexpr int k = 8 - kDistance;  // of both in a row
  return __builtin_shufflevector(zero, x.value, k, k + 1, k + 2, k + 3, k + 4, k + 5, k + 6, k + 7);
#elif defined(__AVX2__)
  constexpr int k = 4 - kDistance;
  return __builtin_shufflevector(zero, x.value, k, k + 1, k + 2, k + 3);
#else
  static_assert(kDistance == 1);
  return __builtin_shufflevector(zero, x.value, 1, 2);
#endif
}

KORVEX_INLINE arithmetic::HostDoubles last_everywhere(arithmetic::HostDoubles x) {
#if defined(__AVX512F__)
  return __builtin_shufflevector(x.value, x.value, 7, 7, 7, 7, 7, 7, 7, 7);
#elif defined(__AVX2__)
  return __builtin_shufflevector(x.value, x.value, 3, 3, 3, 3);
#else
  return __builtin_shufflevector(x.value, x.value, 1, 1);
#endif
}

// Each lane with the sum of those up to it.
template <int kDistance = 1>
KORVEX_INLINE arithmetic::HostDoubles sums_of_lanes(arithmetic::HostDoubles x) {
  if constexpr (kDistance < arithmetic::kHostLanes) {
    return sums_of_lanes<2 * kDistance>(arithmetic::add_rn(x, moved_up<kDistance>(x)));
  } else {
    return x;
  }
}

// ---- A block

class RunningBlock {
 public:
  static constexpr std::int64_t kBlock = 512;
  static constexpr int kMostParts = 5;

  // The parts of the sum so far, largest first; those beyond part_count are 0.
  struct Sum {
    std::array<double, kMostParts> part;
    int part_count;
  };

  // Writes the limbs of the sums through x[0] to x[count - 1], each of them after `limbs`, four
  // doubles in any order; the last sum goes to `sum`. False, with out and out_err undefined, where
  // this way does not give all of them. Preconditions: count <= kBlock, a multiple of the lanes of
  // a register; the limbs are finite.
  KORVEX_COLD static bool scan(const double* x, std::int64_t count, const double* limbs,
                               double* out, double* out_err, Sum& sum) {
    Extent extent = extent_of(x, count);
    int top = exponent_above(extent.largest) + 10;
    int bottom = last_bit_above(extent.least);
    bottom = bottom < kMostBottom ? bottom : kMostBottom;
    for (int i = 0; i < 4; ++i) {
      if (limbs[i] != 0) {
        const int above = exponent_above(limbs[i]) + 3;
        const int last = last_bit(limbs[i]);
        top = above > top ? above : top;
        bottom = last < bottom ? last : bottom;
      }
    }
    if (top > kMostTop) {
      return false;  // an infinity too
    }
    return run<2>(top + 1 - bottom, bottom, {x, count, limbs, out, out_err, sum});
  }

 private:
  using Lanes = arithmetic::HostLanes;
  using Value = Lanes::Value;
  static constexpr int kBits = 44;  // from grid to grid
  static constexpr int kMostTop = 960;
  static constexpr int kMostBottom = 900;  // of elements; the biases are finite then

  struct Extent {
    double largest;  // magnitude; 0 where all are 0
    double least;    // of those that are not 0; infinity where all are
  };
  struct Work {
    const double* x;
    std::int64_t count;
    const double* limbs;
    double* out;
    double* out_err;
    Sum& sum;
  };

  // NaN may stay unseen: it is in the last sum of the block then.
  KORVEX_INLINE static Extent extent_of(const double* x, std::int64_t count) {
    Value less_largest(-0.0);
    Value least(arithmetic::infinity());
    for (std::int64_t i = 0; i < count; i += Lanes::kCount) {
      const Value magnitude = arithmetic::absolute(Lanes::load(x + i));
      less_largest = arithmetic::lesser(-magnitude, less_largest);
      least = arithmetic::lesser(
          arithmetic::selected(magnitude > Value(0.0), magnitude, Value(arithmetic::infinity())),
          least);
    }
    Extent found = {0.0, arithmetic::infinity()};
    for (int lane = 0; lane < Lanes::kCount; ++lane) {
      found.largest = -arithmetic::lesser(arithmetic::lane(less_largest, lane), -found.largest);
      found.least = arithmetic::lesser(arithmetic::lane(least, lane), found.least);
    }
    return found;
  }

  // 2 to it is above |x|; for subnormal numbers far above.
  KORVEX_INLINE static int exponent_above(double x) {
    return arithmetic::exponent_field(x) - arithmetic::kExponentBias + 1;
  }
  // 2 to it divides every double of this size or more.
  KORVEX_INLINE static int last_bit_above(double x) {
    return arithmetic::kUnitExponent + arithmetic::shift(x);
  }
  // The exponent of the last bit that is set. Precondition: x is finite and not 0.
  KORVEX_INLINE static int last_bit(double x) {
    return last_bit_above(x) + arithmetic::trailing_zeros(arithmetic::significand(x));
  }

  // With so many parts as `span` bits from the last to the first ask for, kParts or more.
  template <int kParts>
  static bool run(int span, int bottom, const Work& work) {
    if (span > 53 + kBits * (kParts - 1)) {
      if constexpr (kParts < kMostParts) {
        return run<kParts + 1>(span, bottom, work);
      } else {
        return false;
      }
    }
    return Parts<kParts>(bottom).scan(work);
  }

  template <int kParts>
  class Parts {
   public:
    // Rounding to the grid 2^e is adding 3 * 2^(e + 51) and taking it away.
    explicit Parts(int bottom) {
      for (int i = 0; i < kParts - 1; ++i) {
        const int grid = bottom + kBits * (kParts - 1 - i);
        bias_[i] = 3 * arithmetic::power_of_two(grid + 51);
      }
    }

    KORVEX_COLD bool scan(const Work& work) const {
      Value before[kParts];
      start(work.limbs, before);
      typename Lanes::Bits is_open = arithmetic::to_bits(Value(0.0));
      for (std::int64_t i = 0; i < work.count; i += Lanes::kCount) {
        Value part[kParts];
        cut(Lanes::load(work.x + i), part);
        for (int k = 0; k < kParts; ++k) {
          part[k] = arithmetic::add_rn(sums_of_lanes(part[k]), before[k]);  // exact
          before[k] = last_everywhere(part[k]);
        }
        const auto limbs = limbs_of(part, is_open);
        Lanes::store(work.out + i, limbs.value);
        Lanes::store(work.out_err + i, limbs.error);
      }
      keep(before, work.sum);
      return Lanes::any(is_open) == 0 && arithmetic::is_finite(work.sum.part[0]);
    }

   private:
    // Exact: the parts add up to x.
    template <class Real>
    KORVEX_INLINE void cut(Real x, Real* part) const {
      for (int i = 0; i < kParts - 1; ++i) {
        part[i] = arithmetic::sub_rn(arithmetic::add_rn(x, Real(bias_[i])), Real(bias_[i]));
        x = arithmetic::sub_rn(x, part[i]);
      }
      part[kParts - 1] = x;
    }

    KORVEX_INLINE void start(const double* limbs, Value* before) const {
      double total[kParts] = {};
      for (int i = 0; i < 4; ++i) {
        double part[kParts];
        cut(limbs[i], part);
        for (int k = 0; k < kParts; ++k) {
          total[k] += part[k];  // exact
        }
      }
      for (int k = 0; k < kParts; ++k) {
        before[k] = Value(total[k]);
      }
    }

    KORVEX_INLINE static void keep(const Value* last, Sum& sum) {
      sum.part_count = kParts;
      for (std::size_t k = 0; k < sum.part.size(); ++k) {
        sum.part[k] = k < kParts ? arithmetic::lane(last[k], 0) : 0.0;
      }
    }

    // From the last part on each is added to those before, and once more without the first sum: so
    // the sum is first + next + rests, exactly. A limb is known where even 1 + 2^-50 times what
    // follows, on either side, leaves it as it is; else some bit of is_open is set.
    KORVEX_INLINE static arithmetic::ValueAndErrorOf<Value> limbs_of(const Value* part,
                                                                     Lanes::Bits& is_open) {
      Value error[kParts - 1];
      Value first = part[kParts - 1];
      for (int k = kParts - 2; k >= 0; --k) {
        // Exact: part[k] is a multiple of its grid, and |first| < 2^9 times that.
        const auto sum = arithmetic::fast_two_sum(part[k], first);
        first = sum.value;
        error[k] = sum.error;
      }
      if constexpr (kParts == 2) {
        return {arithmetic::add_rn(first, Value(0.0)),  // -0 to +0
                arithmetic::add_rn(error[0], Value(0.0))};
      } else {
        Value next = error[kParts - 2];
        Value rests(0.0);
        for (int k = kParts - 3; k >= 0; --k) {
          const auto sum = arithmetic::two_sum(error[k], next);  // exact
          next = sum.value;
          rests = arithmetic::add_rn(rests, arithmetic::absolute(sum.error));
        }
        first = arithmetic::add_rn(first, Value(0.0));  // -0 to +0
        next = arithmetic::add_rn(next, Value(0.0));
        const Value more(1 + 0x1p-50);
        rests = arithmetic::mul_rn(rests, more);
        is_open |= changed_by(next, rests);
        is_open |= changed_by(
            first, arithmetic::mul_rn(arithmetic::add_rn(arithmetic::absolute(next), rests), more));
        return {first, next};
      }
    }

    // Bits where value + slack or value - slack is another number than value, which is not -0: the
    // three are in order, so the outer two are compared.
    KORVEX_INLINE static Lanes::Bits changed_by(Value value, Value slack) {
      return arithmetic::to_bits(arithmetic::add_rn(value, slack)) ^
             arithmetic::to_bits(arithmetic::sub_rn(value, slack));
    }

    double bias_[kParts - 1];
  };
};

}  // namespace korvex::host
