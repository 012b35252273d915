// SPDX-License-Identifier: Apache-2.0
// The exact sum of tiles of 512 elements by one warp: 16 elements a lane, three additions an
// element and slice.
//
// The slices (korvex/arithmetic/exact/slice.h) start at the same biases in all lanes, and anew with
// each tile, so a tile that does not fit is known before it counts.
//
// Phases of a tile: two slices; one vote whether any lane's first slice left its binade or left
// anything below the second. If so, the tile is taken again: with a bias for its largest element,
// then with four slices, and what even those leave goes element by element into the warp's digits.
// Counts of grid units stay in the lanes for up to kTilesOfPlan tiles; then they are added up by
// shuffles.
//
// Elements, here and in parallel_dot.h: `const double*`, on a border between pairs, or an array of
// any format as state_elements.h reads it. It can be subscripted and moved on like a pointer.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/arithmetic/exact/slice.h"

namespace korvex::kernels {

constexpr int kLanes = 32;  // threads in a warp
constexpr int kPerLane = 16;
constexpr int kTile = kLanes * kPerLane;

// A number is the sum of digit[i] * 2^(32 i - 1074); digits have a sign and may exceed 32 bits.
constexpr int kDigitBits = 32;
constexpr std::int64_t kDigitMask = 0xffffffff;
constexpr int kSumDigits = arithmetic::LongAccumulator::kDigits - 1;

// An element adds less than 2^32 to a digit, so in between a warp's digits stay below 2^60, and
// those of 8 warps together below 2^63.
constexpr int kTilesBetweenCarries = 1 << 18;

// What was seen that is not finite.
enum Special : unsigned { kNan = 1, kPlusInfinity = 2, kMinusInfinity = 4 };

template <class Sum>
KORVEX_HD void add_specials(unsigned specials, Sum& sum) {
  if ((specials & kNan) != 0) {
    sum.add(arithmetic::canonical_nan());
  }
  if ((specials & kPlusInfinity) != 0) {
    sum.add(arithmetic::infinity());
  }
  if ((specials & kMinusInfinity) != 0) {
    sum.add(-arithmetic::infinity());
  }
}

// Where the slices lie, and what they hold; all but the counts is the same in all lanes.
struct WarpPlan {
  static constexpr int kFewSlices = 2;
  static constexpr int kManySlices = 4;
  // 16 residues of at most half a grid step, 2^(k-53), stay below a quarter of the next slice's
  // binade, 2^(k-47-2).
  static constexpr int kSliceBits = 47;
  // 16 elements below 2^(e+1) in magnitude move a slice of k = e + 8 by less than 2^(k-3), where
  // 2^(k-1) is the limit: a later tile may be twice as large and still fit.
  static constexpr int kBiasAboveExponent = 8;
  static constexpr int kLowestBias = arithmetic::kMinExponent + (kManySlices - 1) * kSliceBits;
  static constexpr int kHighestBias = arithmetic::kExponentBias - 1;
  // Largest exponent field of an element for which there is a bias.
  static constexpr unsigned kHighestField =
      kHighestBias - kBiasAboveExponent + arithmetic::kExponentBias;
  // A tile adds at most 2^51 to a lane's count, so a warp's stays below 2^63.
  static constexpr int kTilesOfPlan = 64;

  int bias_exponent = kLowestBias;  // the k of the first slice
  int tiles_left = kTilesOfPlan;    // tiles for which the plan still stands
  bool is_deep = false;             // a tile of this plan left something below the second slice
  std::int64_t count[kManySlices] = {0, 0, 0, 0};  // this lane's, in grid units of each slice

  KORVEX_INLINE static int bias_exponent_for(unsigned highest_field) {
    const int field = highest_field == 0 ? 1 : static_cast<int>(highest_field);
    const int wanted = field - arithmetic::kExponentBias + kBiasAboveExponent;
    return wanted < kLowestBias ? kLowestBias : wanted;
  }

  KORVEX_INLINE std::uint64_t bias_bits(int slice) const {
    return arithmetic::slice_bias_bits(bias_exponent - slice * kSliceBits);
  }

  // The exponent of a grid unit, counted from 2^-1074.
  KORVEX_INLINE int unit_position(int slice) const {
    return bias_exponent - slice * kSliceBits - arithmetic::kFractionBits -
           arithmetic::kUnitExponent;
  }
};

// A function that is not inlined is called on a copy: so the original can live in registers.
template <class Thread>
class WarpSum {
 public:
  // digits: kSumDigits of them, zero, of this warp alone. special: shared by the block.
  KORVEX_INLINE WarpSum(const Thread& thread, std::int64_t* digits, unsigned& special)
      : thread_(thread), digits_(digits), special_(special) {}

  // Adds x[0] to x[count - 1], 1 <= count <= kTile. All lanes call this with the same arguments.
  template <class Elements>
  KORVEX_INLINE void add_tile(Elements x, int count) {
    const bool is_fast =
        count == kTile && !plan_.is_deep && try_tile<WarpPlan::kFewSlices>(x, kTile, plan_);
    if (!is_fast) {
      WarpSum copy = *this;
      copy.add_tile_slowly(x, count, copy.plan_);
      plan_ = copy.plan_;
    }
    if (--plan_.tiles_left == 0) {
      finish();
    }
  }

  // Adds one element; any one lane may call this.
  KORVEX_COLD void add_element(double x) const {
    using namespace arithmetic;
    if (!is_finite(x)) {
      thread_.set_bits_of_block(special_, is_nan(x)        ? kNan
                                          : is_negative(x) ? kMinusInfinity
                                                           : kPlusInfinity);
      return;
    }
    add_shifted(significand(x), shift(x), is_negative(x));
  }

  // Moves all but 32 bits of each digit to the next one. All lanes call this.
  KORVEX_COLD void carry() const {
    thread_.sync_warp();
    if (thread_.lane() == 0) {
      for (int i = 0; i + 1 < kSumDigits; ++i) {
        digits_[i + 1] += digits_[i] >> kDigitBits;  // rounds down
        digits_[i] &= kDigitMask;
      }
    }
    thread_.sync_warp();
  }

  // Moves what the lanes have counted into the digits. All lanes call this.
  KORVEX_INLINE void finish() {
    const WarpSum copy = *this;
    copy.flush(copy.plan_);
    plan_ = WarpPlan();
  }

 protected:
  // Takes the tile through kSlices slices; false in all lanes, with nothing added, where that is
  // not exact.
  template <int kSlices, class Elements>
  KORVEX_INLINE bool try_tile(Elements x, int count, WarpPlan& plan) const {
    double rest[kPerLane];
    load(x, count, rest);
    std::int64_t units[kSlices];
    const bool stayed = run<kSlices>(plan, rest, units);
    std::uint64_t lost = 0;
    for (int i = 0; i < kPerLane; ++i) {
      lost |= arithmetic::to_bits(rest[i]);
    }
    if (thread_.any(!stayed || arithmetic::has_rest(lost))) {
      return false;
    }
    for (int slice = 0; slice < kSlices; ++slice) {
      plan.count[slice] += units[slice];
    }
    return true;
  }

  template <class Elements>
  KORVEX_COLD void add_tile_slowly(Elements x, int count, WarpPlan& plan) const {
    if (plan.is_deep ? try_tile<WarpPlan::kManySlices>(x, count, plan)
                     : count < kTile && try_tile<WarpPlan::kFewSlices>(x, count, plan)) {
      return;
    }
    const unsigned highest = highest_field(x, count);
    if (highest > WarpPlan::kHighestField) {
      add_each(x, count);
      return;
    }
    const int wanted = WarpPlan::bias_exponent_for(highest);
    if (wanted != plan.bias_exponent) {
      flush(plan);
      plan = WarpPlan();
      plan.bias_exponent = wanted;
      if (try_tile<WarpPlan::kFewSlices>(x, count, plan)) {
        return;
      }
    }
    plan.is_deep = true;
    add_tile_deeply(x, count, plan);
  }

  // Precondition: the plan was made for this tile, so its first slice stays in its binade.
  template <class Elements>
  KORVEX_INLINE void add_tile_deeply(Elements x, int count, WarpPlan& plan) const {
    double rest[kPerLane];
    load(x, count, rest);
    std::int64_t units[WarpPlan::kManySlices];
    run<WarpPlan::kManySlices>(plan, rest, units);
    for (int slice = 0; slice < WarpPlan::kManySlices; ++slice) {
      plan.count[slice] += units[slice];
    }
    for (int i = 0; i < kPerLane; ++i) {
      if (rest[i] != 0) {
        add_element(rest[i]);
      }
    }
  }

  // Takes each of rest through the slices in turn and leaves there what none took. False where the
  // first slice left its binade: rest and units mean nothing then.
  template <int kSlices>
  KORVEX_INLINE bool run(const WarpPlan& plan, double* rest, std::int64_t* units) const {
    std::uint64_t moved = 0;
    for (int slice = 0; slice < kSlices; ++slice) {
      const std::uint64_t bias = plan.bias_bits(slice);
      double sum = arithmetic::from_bits(bias);
      for (int i = 0; i < kPerLane; ++i) {
        rest[i] = arithmetic::add_to_slice(sum, rest[i]);
        if (slice == 0) {
          moved |= arithmetic::to_bits(sum) ^ bias;
        }
      }
      units[slice] = static_cast<std::int64_t>(arithmetic::to_bits(sum) - bias);
    }
    return !arithmetic::moved_out(moved);
  }

  // Zeros stand for what lies beyond the count.
  template <class Elements>
  KORVEX_INLINE void load(Elements x, int count, double* into) const {
    if (count == kTile) {
      load_whole_tile(x, into);
      return;
    }
    for (int i = 0; i < kPerLane; ++i) {
      const int place = (i & ~1) * kLanes + 2 * thread_.lane() + (i & 1);
      into[i] = place < count ? x[place] : 0.0;
    }
  }

  // Pair i of lane l is pair 32 i + l of the tile.
  KORVEX_INLINE void load_whole_tile(const double* x, double* into) const {
    const double* own = x + 2 * thread_.lane();
    for (int i = 0; i < kPerLane; i += 2) {
      thread_.load_pair(own + std::int64_t{i} * kLanes, into + i);
    }
  }
  template <class Elements>
  KORVEX_INLINE void load_whole_tile(const Elements& x, double* into) const {
    x.template load_lane<kPerLane>(thread_.lane(), into);
  }

  template <class Elements>
  KORVEX_COLD unsigned highest_field(Elements x, int count) const {
    unsigned highest = 0;
    for (int place = thread_.lane(); place < count; place += kLanes) {
      const auto field = static_cast<unsigned>(arithmetic::exponent_field(x[place]));
      highest = field > highest ? field : highest;
    }
    return thread_.max(highest);
  }

  template <class Elements>
  KORVEX_COLD void add_each(Elements x, int count) const {
    for (int place = thread_.lane(); place < count; place += kLanes) {
      add_element(x[place]);
    }
  }

  KORVEX_COLD void flush(const WarpPlan& plan) const { add_units<0>(plan, plan.count); }

  // Adds the units of all lanes, in each slice of a plan whose positions begin kBitsBelow bits
  // above the first digit. The first lane adds alone, so it needs no atomic operation. All lanes
  // together.
  template <int kBitsBelow>
  KORVEX_INLINE void add_units(const WarpPlan& plan, const std::int64_t* lane_units) const {
    std::int64_t units[WarpPlan::kManySlices];
    for (int slice = 0; slice < WarpPlan::kManySlices; ++slice) {
      units[slice] = thread_.sum(lane_units[slice]);
    }
    thread_.sync_warp();
    if (thread_.lane() == 0) {
      for (int slice = 0; slice < WarpPlan::kManySlices; ++slice) {
        const bool is_negative = units[slice] < 0;
        const auto bits = static_cast<std::uint64_t>(units[slice]);
        add_alone(is_negative ? 0 - bits : bits, plan.unit_position(slice) + kBitsBelow,
                  is_negative);
      }
    }
    thread_.sync_warp();
  }

  // Adds magnitude * 2^(position - 1074), negative or not, to three digits, while no other lane
  // adds.
  KORVEX_INLINE void add_alone(std::uint64_t magnitude, int position, bool negative) const {
    const int index = position / kDigitBits;
    const int offset = position % kDigitBits;
    const std::uint64_t low = magnitude << offset;
    const std::uint64_t high = (magnitude >> 1) >> (63 - offset);  // a shift by 64 is not defined
    const std::int64_t sign = negative ? -1 : 1;
    digits_[index] += sign * static_cast<std::int64_t>(low & kDigitMask);
    digits_[index + 1] += sign * static_cast<std::int64_t>(low >> kDigitBits);
    digits_[index + 2] += sign * static_cast<std::int64_t>(high);
  }

  // The same while other lanes may add.
  KORVEX_INLINE void add_shifted(std::uint64_t magnitude, int position, bool negative) const {
    const int index = position / kDigitBits;
    const int offset = position % kDigitBits;
    const std::uint64_t low = magnitude << offset;
    const std::uint64_t high = (magnitude >> 1) >> (63 - offset);  // a shift by 64 is not defined
    add_digit(index, low & kDigitMask, negative);
    add_digit(index + 1, low >> kDigitBits, negative);
    add_digit(index + 2, high, negative);
  }

  KORVEX_INLINE void add_digit(int index, std::uint64_t magnitude, bool negative) const {
    if (magnitude != 0) {
      const auto value = static_cast<std::int64_t>(magnitude);
      thread_.add_to_block(digits_[index], negative ? -value : value);
    }
  }

  Thread thread_;
  std::int64_t* digits_;
  unsigned& special_;
  WarpPlan plan_;
};

}  // namespace korvex::kernels
