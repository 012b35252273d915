// SPDX-License-Identifier: Apache-2.0
// The exact sum of an array by all threads of a grid, each block on its own until the last one.
//
// Phases: each warp takes tiles of 512 elements through two slices on fixed grids and counts grid
// units (warp_sum.h); a block adds up what its warps found, digit by digit, and hands the digits to
// the grid; the block that arrives last rounds, writes, and leaves the grid's memory zero. Every
// partial sum is an exact integer, so neither the grid nor the order of arrival shows in the
// result.
//
// Cost: about 11 instructions an element, so memory is the limit; two atomic additions for
// each digit of a block that is not zero.
//
// A Thread is one thread of a grid of whole warps: its place, and what it can do together with
// others. thread.cuh has the one of a GPU, a test has one that runs on a host.
#pragma once

#include <new>

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/device/warp_sum.h"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

constexpr int kMaxWarps = kGridBlock / kLanes;  // in a block
static_assert(kSumBlockElements == kMaxWarps * kTile);

// Digits that hold any sum of a kind: all of its long accumulator but the last, which is for
// carries.
template <class Sum>
constexpr int kDigitsOf = Sum::Long::kDigits - 1;

// Memory that the threads of one block share; its content at the start does not matter.
template <class Sum>
struct BlockMemoryOf {
  std::int64_t digits[kMaxWarps][kDigitsOf<Sum>];  // one number for each warp
  unsigned special;                                // what was seen that is not finite
  bool is_last;                                    // this block is the last of the grid to arrive
  // Room for one exact sum, in which the last block rounds.
  alignas(Sum) unsigned char sum[sizeof(Sum)];
};

// Memory that all blocks share: all zero before a launch, and again after one that came to its end.
// A kernel brings its own; launches that may overlap need different ones.
template <class Sum>
struct GridMemoryOf {
  // Each block adds less than 2^34 to a digit, and no block without elements adds anything: 2^29
  // blocks of 512 elements, 2 TiB, fill no digit.
  std::int64_t digits[kDigitsOf<Sum>];
  std::int64_t special;  // bits of Special
  std::int64_t arrived;  // blocks that have handed in their digits
};

using BlockMemory = BlockMemoryOf<arithmetic::ExactSum>;
using GridMemory = GridMemoryOf<arithmetic::ExactSum>;

// The tiles of this warp: every warp of the grid takes each warps_of_grid-th one.
template <int kCarryAfter, class Thread>
KORVEX_INLINE void sum_tiles(const Thread& thread, const double* x, std::int64_t n,
                             BlockMemory& block) {
  WarpSum<Thread> sum(thread, block.digits[thread.warp()], block.special);
  // Tiles are read in pairs of elements: an array that starts between two pairs is read from its
  // second element on.
  const std::int64_t head = n > 0 && !thread.is_pair_aligned(x) ? 1 : 0;
  if (head == 1 && thread.block() == 0 && thread.index() == 0) {
    const WarpSum<Thread> copy = sum;
    copy.add_element(x[0]);
  }
  const std::int64_t stride = thread.blocks() * thread.warps() * kTile;
  const std::int64_t first = (thread.block() * thread.warps() + thread.warp()) * kTile;
  int tiles_before_carry = kCarryAfter;
  for (std::int64_t begin = head + first; begin < n; begin += stride) {
    const std::int64_t rest = n - begin;
    sum.add_tile(x + begin, rest < kTile ? static_cast<int>(rest) : kTile);
    if (--tiles_before_carry == 0) {
      const WarpSum<Thread> copy = sum;
      copy.carry();
      tiles_before_carry = kCarryAfter;
    }
  }
  sum.finish();
}

// Adds the block's digits to the grid's. Low halves and the rest go apart, which keeps digits
// small; the last one, which has none above it, holds little more than a sign.
template <class Thread, class Sum>
KORVEX_HD void hand_in(const Thread& thread, BlockMemoryOf<Sum>& block, GridMemoryOf<Sum>& grid) {
  for (int i = thread.index(); i < kDigitsOf<Sum>; i += thread.threads()) {
    std::int64_t digit = 0;
    for (int warp = 0; warp < thread.warps(); ++warp) {
      digit += block.digits[warp][i];
    }
    const std::int64_t above = i + 1 < kDigitsOf<Sum> ? digit >> kDigitBits : 0;
    const std::int64_t own = digit - (above << kDigitBits);
    if (own != 0) {
      thread.add_to_grid(grid.digits[i], own);
    }
    if (above != 0) {
      thread.add_to_grid(grid.digits[i + 1], above);
    }
  }
  if (thread.index() == 0 && block.special != 0) {
    thread.set_bits_of_grid(grid.special, block.special);
  }
}

// True in all threads of one block: the last to call this. What the others handed in before is
// visible then. is_last lies in the block's memory; arrived in the grid's, zero before the launch.
template <class Thread>
KORVEX_HD bool arrives_last(const Thread& thread, bool& is_last, std::int64_t& arrived) {
  thread.fence();  // what this thread handed in comes before the arrival of its block
  thread.sync_block();
  if (thread.index() == 0) {
    is_last = thread.add_to_grid(arrived, 1) == thread.blocks() - 1;
  }
  thread.sync_block();
  thread.fence();
  return is_last;
}

// Takes what all blocks handed in, and leaves zero: a sum in the first thread of the block, a null
// pointer in the others.
template <class Thread, class Sum>
KORVEX_COLD Sum* collect_grid(const Thread& thread, BlockMemoryOf<Sum>& block,
                              GridMemoryOf<Sum>& grid) {
  std::int64_t* digits = block.digits[0];
  for (int i = thread.index(); i < kDigitsOf<Sum>; i += thread.threads()) {
    digits[i] = thread.take_from_grid(grid.digits[i]);
  }
  if (thread.index() == 0) {
    block.special = static_cast<unsigned>(thread.take_from_grid(grid.special));
    thread.take_from_grid(grid.arrived);
  }
  thread.sync_block();
  if (thread.index() != 0) {
    return nullptr;
  }
  Sum& sum = *new (block.sum) Sum;
  for (int i = 0; i < kDigitsOf<Sum>; ++i) {
    if (digits[i] != 0) {
      sum.add_digit(i, digits[i]);
    }
  }
  add_specials(block.special, sum);
  return &sum;
}

// Zeroes the block's memory. Ends with all threads of the block together.
template <class Thread, class Sum>
KORVEX_HD void clear_block(const Thread& thread, BlockMemoryOf<Sum>& block) {
  for (int i = thread.lane(); i < kDigitsOf<Sum>; i += kLanes) {
    block.digits[thread.warp()][i] = 0;
  }
  if (thread.index() == 0) {
    block.special = 0;
  }
  thread.sync_block();
}

// Hands in what the block has found. The sum of all blocks in one thread of the grid, the one that
// comes last; a null pointer in the others.
template <class Thread, class Sum>
KORVEX_HD Sum* join_blocks(const Thread& thread, BlockMemoryOf<Sum>& block,
                           GridMemoryOf<Sum>* grid) {
  thread.sync_block();
  hand_in(thread, block, *grid);
  const bool is_last = arrives_last(thread, block.is_last, grid->arrived);
  return is_last ? collect_grid(thread, block, *grid) : nullptr;
}

// The sum of x[0] to x[n - 1] in one thread of the grid, in the memory of its block; a null pointer
// in the others. Precondition: all threads of a grid of at least one block call this, each block is
// 1 to kMaxWarps whole warps, x holds n elements, and no other launch uses the same GridMemory
// meanwhile.
template <int kCarryAfter = kTilesBetweenCarries, class Thread>
KORVEX_INLINE arithmetic::ExactSum* sum_over_grid(const Thread& thread, const double* x,
                                                  std::int64_t n, BlockMemory& block,
                                                  GridMemory* grid) {
  clear_block(thread, block);
  sum_tiles<kCarryAfter>(thread, x, n, block);
  return join_blocks(thread, block, grid);
}

// out[0], out_err[0]: the first two limbs of that sum. Precondition: the same.
template <int kCarryAfter = kTilesBetweenCarries, class Thread>
KORVEX_HD void sum_by_grid(const Thread& thread, const double* x, double* out, double* out_err,
                           std::int64_t n, BlockMemory& block, GridMemory* grid) {
  arithmetic::ExactSum* sum = sum_over_grid<kCarryAfter>(thread, x, n, block, grid);
  if (sum != nullptr) {
    arithmetic::write_parallel_sum(*sum, out, out_err);
  }
}

}  // namespace korvex::kernels
