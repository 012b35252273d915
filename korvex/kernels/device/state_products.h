// SPDX-License-Identifier: Apache-2.0
// Matrix products of arrays of any format: elements become doubles, and tiles of the product are
// rounded once to the format of the result.
//
// A 64-bit integer is two doubles, itself rounded and what is left of it. Then a matrix is two, one
// after the other along the dimension that is summed over, and the other operand is there twice to
// meet both. An infinity or a NaN of the other operand must meet the whole integer: beside what is
// left of one, a zero stands for it. The rounded integer has the sign of the integer and is 0 only
// where that is, so nothing more is needed.
#pragma once

#include <new>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/kernels/device/matrix_tile.h"
#include "korvex/kernels/device/state_results.h"

namespace korvex::kernels {

KORVEX_INLINE double part_of_element(const StateElements& x, std::int64_t i, int part) {
  const StateElements element = x + i;
  const double high = element[0];
  if (part == kFinitePart) {
    return arithmetic::is_finite(high) ? high : 0.0;
  }
  if (!x.is_wide()) {
    return high;
  }
  const arithmetic::ValueAndError whole = arithmetic::two_sum(high, element.low()[0]);  // exact
  return part == kWholePart ? whole.value : whole.error;
}

// Writes one part of n elements as doubles. Runs of `inner` elements stay together, and so does
// room for other parts: `copies` runs in all for each of the array.
template <class Thread>
KORVEX_HD void widen_by_grid(const Thread& thread, const StateElements& x, std::int64_t n, int part,
                             std::int64_t inner, std::int64_t copies, double* out) {
  const std::int64_t stride = thread.blocks() * thread.threads();
  for (std::int64_t i = thread.block() * thread.threads() + thread.index(); i < n; i += stride) {
    const std::int64_t run = i / inner;
    out[run * (copies - 1) * inner + i] = part_of_element(x, i, part);
  }
}

// Each element rounded once.
struct RoundedResults {
  // Room for an element whose limbs do not decide.
  struct LongSum {
    arithmetic::ExactProductSum sum;
    arithmetic::ProductAccumulator value;
  };

  ResultElements out;

  KORVEX_INLINE bool store(const double* limbs, std::int64_t element) const {
    if (is_in_doubt(limbs[0], limbs[1])) {
      return false;
    }
    out.write(element, rounded_once(limbs[0], sign_of(limbs[1]), out.format));
    return true;
  }
  KORVEX_COLD void finish(const arithmetic::ElementOfSlices& slices,
                          const arithmetic::ElementTerms& terms, LongSum& room,
                          std::int64_t element) const {
    double limbs[arithmetic::kElementLimbs];
    slices.finish(terms, room.sum, limbs);
    if (!store(limbs, element)) {
      out.write(element, summed_anew(terms, room));
    }
  }

 private:
  // The largest double may stand for an element that rounds to an infinity; and a second limb of 0
  // may hide something below 2^-1074, which counts where the first limb is a midpoint.
  KORVEX_INLINE bool is_in_doubt(double first, double second) const {
    if (arithmetic::absolute(first) == arithmetic::kLargest) {
      return true;
    }
    return is_narrow_result(out.format) && second == 0 && arithmetic::is_finite(first) &&
           rounded_once(first, 1, out.format) != rounded_once(first, -1, out.format);
  }

  KORVEX_COLD double summed_anew(const arithmetic::ElementTerms& terms, LongSum& room) const {
    auto& sum = *new (&room.sum) arithmetic::ExactProductSum;
    for (std::int64_t k = 0; k < terms.count; ++k) {
      sum.add_wide_product(terms.a[k], terms.b[k * terms.stride]);
    }
    room.value.clear();
    sum.add_to(room.value);
    double nearest;
    room.value.round(&nearest, 1);
    const int sign_of_rest = arithmetic::is_finite(nearest) ? room.value.sign() : 0;
    return rounded_once(nearest, sign_of_rest, out.format);
  }
};

// Tiles of `width` columns and as many rows as the block then has, row by row of tiles; each block
// takes every so manyth one. Precondition: width divides the threads of a block, of which there are
// at most kMostThreadsOfFunction.
template <class Thread>
KORVEX_HD void multiply_by_grid(const Thread& thread, std::int64_t tiles, int width,
                                const Factors& factors, const RoundedResults& results,
                                typename MatrixTile<Thread, RoundedResults>::Memory& block) {
  const TilePlace place{thread.index() % width, thread.index() / width, width,
                        thread.threads() / width};
  const std::int64_t tiles_of_row = (factors.columns + width - 1) / width;
#pragma unroll 1
  for (std::int64_t tile = thread.block(); tile < tiles; tile += thread.blocks()) {
    const std::int64_t row = tile / tiles_of_row * place.height;
    const std::int64_t column = tile % tiles_of_row * width;
    MatrixTile<Thread, RoundedResults>(thread, place, factors, results, row, column, block).write();
    thread.sync_block();  // before the next tile takes the block's memory
  }
}

}  // namespace korvex::kernels
