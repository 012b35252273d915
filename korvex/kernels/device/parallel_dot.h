// SPDX-License-Identifier: Apache-2.0
// The exact dot product of two arrays by all threads of a grid, each block on its own until the
// last one; how blocks are joined stands in parallel_sum.h.
//
// Phases of a tile of 256 pairs: each lane splits 8 products into value and error; one vote whether
// any of them cannot be split (not finite, or too large or small); if none, the 16 parts of each
// lane go through four slices on fixed grids whose units a warp adds up as integers, and what is
// left below the last slice goes part by part into the warp's digits. Otherwise the pairs of the
// tile go there one by one, as 106-bit integers. Every partial sum is exact, so the
// result does not depend on the way.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/dot.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/kernels/device/parallel_sum.h"
#include "korvex/kernels/device/warp_sum.h"

namespace korvex::kernels {

using DotBlockMemory = BlockMemoryOf<arithmetic::ExactProductSum>;
using DotGridMemory = GridMemoryOf<arithmetic::ExactProductSum>;

constexpr int kPairsPerLane = kPerLane / 2;
constexpr int kDotTile = kLanes * kPairsPerLane;
static_assert(kDotBlockElements == kMaxWarps * kDotTile);

template <class Thread>
class WarpProducts : private WarpSum<Thread> {
  using Base = WarpSum<Thread>;
  using Base::special_;
  using Base::thread_;

 public:
  // digits: kDigitsOf<ExactProductSum> of them, zero, of this warp alone.
  KORVEX_INLINE WarpProducts(const Thread& thread, std::int64_t* digits, unsigned& special)
      : Base(thread, digits, special) {}

  // Adds x[i] * y[i] for i = 0 to count - 1, 1 <= count <= kDotTile. All lanes call this alike.
  template <class XElements, class YElements>
  KORVEX_INLINE void add_tile(XElements x, YElements y, int count) const {
    double x_factors[kPairsPerLane];
    double y_factors[kPairsPerLane];
    load_factors(x, count, x_factors);
    load_factors(y, count, y_factors);
    double part[kPerLane];
    bool can_be_split = true;
    unsigned highest = 0;
    for (int i = 0; i < kPairsPerLane; ++i) {
      const double x_factor = x_factors[i];
      const double y_factor = y_factors[i];
      const double product = arithmetic::mul_rn(x_factor, y_factor);  // rounded
      double* split = part + std::int64_t{2} * i;
      split[0] = product;
      split[1] = arithmetic::fma_rn(x_factor, y_factor, -product);  // exact where can_be_split
      const auto field = static_cast<unsigned>(arithmetic::exponent_field(product));
      highest = field > highest ? field : highest;
      can_be_split = can_be_split && field <= WarpPlan::kHighestField &&
                     (field >= kLeastField || x_factor == 0 || y_factor == 0);
    }
    if (thread_.any(!can_be_split)) {
      add_each(x, y, count);
    } else {
      add_parts(part, thread_.max(highest));
    }
  }

 private:
  // Of a product whose error is exact.
  static constexpr unsigned kLeastField =
      arithmetic::kLeastSplitExponent + arithmetic::kExponentBias;
  static constexpr int kBitsBelowDoubles =
      arithmetic::kUnitExponent - arithmetic::ProductAccumulator::kLowestExponent;

  // Element i of lane l is element 32 i + l of the tile; zeros stand for what lies beyond the
  // count.
  KORVEX_INLINE void load_factors(const double* x, int count, double* into) const {
    for (int i = 0; i < kPairsPerLane; ++i) {
      const int place = i * kLanes + thread_.lane();
      into[i] = place < count ? x[place] : 0.0;
    }
  }
  template <class Elements>
  KORVEX_INLINE void load_factors(const Elements& x, int count, double* into) const {
    if (count == kDotTile) {
      x.template load_lane<kPairsPerLane>(thread_.lane(), into);
      return;
    }
    for (int i = 0; i < kPairsPerLane; ++i) {
      const int place = i * kLanes + thread_.lane();
      into[i] = place < count ? x[place] : 0.0;
    }
  }

  KORVEX_INLINE void add_parts(double* part, unsigned highest) const {
    WarpPlan plan;
    plan.bias_exponent = WarpPlan::bias_exponent_for(highest);
    std::int64_t units[WarpPlan::kManySlices];
    Base::template run<WarpPlan::kManySlices>(plan, part, units);
    Base::template add_units<kBitsBelowDoubles>(plan, units);
    for (int i = 0; i < kPerLane; ++i) {
      if (part[i] != 0) {
        add_rest(part[i]);
      }
    }
  }

  KORVEX_COLD void add_rest(double x) const {
    this->add_shifted(arithmetic::significand(x), arithmetic::shift(x) + kBitsBelowDoubles,
                      arithmetic::is_negative(x));
  }

  template <class XElements, class YElements>
  KORVEX_COLD void add_each(XElements x, YElements y, int count) const {
    for (int place = thread_.lane(); place < count; place += kLanes) {
      add_pair(x[place], y[place]);
    }
  }

  KORVEX_COLD void add_pair(double x, double y) const {
    using namespace arithmetic;
    if (!is_finite(x) || !is_finite(y)) {
      const double product = mul_rn(x, y);
      thread_.set_bits_of_block(special_, is_nan(product)        ? kNan
                                          : is_negative(product) ? kMinusInfinity
                                                                 : kPlusInfinity);
      return;
    }
    const bool negative = is_negative(x) != is_negative(y);
    const int position = shift(x) + shift(y);
    this->add_shifted(significand(x) * significand(y), position, negative);
    this->add_shifted(multiply_high(significand(x), significand(y)), position + 64, negative);
  }
};

// The sum of all x[i] * y[i] in one thread of the grid, a null pointer in the others.
// Precondition: as of sum_over_grid, y as long as x.
template <class Thread>
KORVEX_INLINE arithmetic::ExactProductSum* dot_over_grid(const Thread& thread, const double* x,
                                                         const double* y, std::int64_t n,
                                                         DotBlockMemory& block,
                                                         DotGridMemory* grid) {
  clear_block(thread, block);
  const WarpProducts<Thread> products(thread, block.digits[thread.warp()], block.special);
  const std::int64_t stride = thread.blocks() * thread.warps() * kDotTile;
  const std::int64_t first = (thread.block() * thread.warps() + thread.warp()) * kDotTile;
  for (std::int64_t begin = first; begin < n; begin += stride) {
    const std::int64_t rest = n - begin;
    products.add_tile(x + begin, y + begin, rest < kDotTile ? static_cast<int>(rest) : kDotTile);
  }
  return join_blocks(thread, block, grid);
}

// out[0], out_err[0], out_err2[0]: the first three limbs of that sum. Precondition: the same.
template <class Thread>
KORVEX_HD void dot_by_grid(const Thread& thread, const double* x, const double* y, double* out,
                           double* out_err, double* out_err2, std::int64_t n, DotBlockMemory& block,
                           DotGridMemory* grid) {
  arithmetic::ExactProductSum* sum = dot_over_grid(thread, x, y, n, block, grid);
  if (sum != nullptr) {
    arithmetic::write_parallel_dot(*sum, out, out_err, out_err2);
  }
}

}  // namespace korvex::kernels
