// SPDX-License-Identifier: Apache-2.0
// Adds arrays to an exact state by all threads of a grid; settles a state, and rounds it.
//
// Phases of an addition: each warp takes its tiles by the code of the parallel sums (warp_sum.h,
// parallel_dot.h) into digits of its own; a block adds up what its warps found and adds that to the
// digits of the state, by atomic additions of integers. Those have no order and the state needs no
// other memory, so any number of launches may add to one state at a time. Nothing is rounded.
//
// A 64-bit integer is two doubles: its tile is taken twice, and a tile of products of two such
// four times. Infinities and NaN are counted where others set a bit for their kind.
//
// Room: a block adds less than 2^33 to a digit of the state, so a launch of kMostStateBlocks less
// than 2^45; whoever launches settles the state now and then. A warp's own digits of products take
// up to 2^43 a tile and are carried nowhere: 2^20 tiles, which is 2^34 pairs with 64 warps.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/device/parallel_dot.h"
#include "korvex/kernels/device/parallel_sum.h"
#include "korvex/kernels/device/state_elements.h"
#include "korvex/kernels/device/state_results.h"
#include "korvex/kernels/states.h"

namespace korvex::kernels {

// The words of a state at which its counts begin, in the order of TermCounts.
enum CountWord : int { kPlusInfinities, kMinusInfinities, kNans, kTerms, kCountsOfState };
constexpr int kSpecialCounts = kTerms;

// Memory of a block; its content at the start does not matter.
template <class Sum>
struct StateBlockMemory {
  BlockMemoryOf<Sum> found;
  std::int64_t specials[kSpecialCounts];
};

// Where the digits of one number of a state are, and its counts; null where nothing is counted.
struct StateTarget {
  std::int64_t* digits;
  std::int64_t* counts;
  std::int64_t sign;
};

// A thread that counts what is not finite. The sums that it runs hand it one bit for the kind.
template <class Thread>
class CountingThread : public Thread {
 public:
  KORVEX_INLINE CountingThread(const Thread& thread, std::int64_t* specials)
      : Thread(thread), specials_(specials) {}

  KORVEX_INLINE void set_bits_of_block(unsigned& /*bits of the block*/, unsigned kind) const {
    this->add_to_block(specials_[kind == kNan            ? kNans
                                 : kind == kPlusInfinity ? kPlusInfinities
                                                         : kMinusInfinities],
                       1);
  }
  // Precondition: x is not finite.
  KORVEX_COLD void count_special(double x) const {
    unsigned none = 0;
    set_bits_of_block(none, arithmetic::is_nan(x)        ? kNan
                            : arithmetic::is_negative(x) ? kMinusInfinity
                                                         : kPlusInfinity);
  }

 private:
  std::int64_t* specials_;
};

// Calls add(begin, count) for the tiles of this warp: every warp of the grid takes each
// warps_of_grid-th one.
template <int kElements, class Thread, class Add>
KORVEX_INLINE void for_tiles_of_warp(const Thread& thread, std::int64_t n, const Add& add) {
  const std::int64_t stride = thread.blocks() * thread.warps() * kElements;
  const std::int64_t first = (thread.block() * thread.warps() + thread.warp()) * kElements;
  for (std::int64_t begin = first; begin < n; begin += stride) {
    const std::int64_t rest = n - begin;
    add(begin, rest < kElements ? static_cast<int>(rest) : kElements);
  }
}

template <class Thread, class Sum>
KORVEX_HD void clear_state_block(const Thread& thread, StateBlockMemory<Sum>& block) {
  if (thread.index() < kSpecialCounts) {
    block.specials[thread.index()] = 0;
  }
  clear_block(thread, block.found);
}

KORVEX_INLINE std::int64_t with_sign(std::int64_t value, std::int64_t sign) {
  return sign < 0 ? -value : value;
}

// Adds what the block has found to the state, and to its number of terms the n of the launch.
template <class Thread, class Sum>
KORVEX_HD void hand_in_to_state(const Thread& thread, std::int64_t n, StateBlockMemory<Sum>& block,
                                const StateTarget& state) {
  thread.sync_block();
  for (int i = thread.index(); i < kDigitsOf<Sum>; i += thread.threads()) {
    std::int64_t digit = 0;
    for (int warp = 0; warp < thread.warps(); ++warp) {
      digit += block.found.digits[warp][i];
    }
    const std::int64_t above = digit >> kDigitBits;
    const std::int64_t own = digit & kDigitMask;
    if (own != 0) {
      thread.add_to_grid(state.digits[i], with_sign(own, state.sign));
    }
    if (above != 0) {
      thread.add_to_grid(state.digits[i + 1], with_sign(above, state.sign));
    }
  }
  if (state.counts == nullptr) {
    return;
  }
  const int count = thread.index();
  if (count < kSpecialCounts && block.specials[count] != 0) {
    thread.add_to_grid(state.counts[count], with_sign(block.specials[count], state.sign));
  }
  if (thread.block() == 0 && thread.index() == 0) {
    thread.add_to_grid(state.counts[kTerms], with_sign(n, state.sign));
  }
}

// Preconditions, here and below: all threads of a grid of 1 to kMostStateBlocks blocks call this,
// each block is 1 to kMaxWarps whole warps, the arrays have n elements, each aligned to its size,
// and the digits of the state have room for one more launch.
template <class Thread>
KORVEX_HD void add_elements_by_grid(const Thread& thread, const StateElements& x, std::int64_t n,
                                    const StateTarget& state,
                                    StateBlockMemory<arithmetic::ExactSum>& block) {
  clear_state_block(thread, block);
  using Counting = CountingThread<Thread>;
  WarpSum<Counting> sum(Counting(thread, block.specials), block.found.digits[thread.warp()],
                        block.found.special);
  const bool is_wide = x.is_wide();
  int tiles_before_carry = kTilesBetweenCarries / 2;  // a tile may be taken twice
  for_tiles_of_warp<kTile>(thread, n, [&](std::int64_t begin, int count) {
    sum.add_tile(x + begin, count);
    if (is_wide) {
      sum.add_tile(x.low() + begin, count);
    }
    if (--tiles_before_carry == 0) {
      const WarpSum<Counting> copy = sum;
      copy.carry();
      tiles_before_carry = kTilesBetweenCarries / 2;
    }
  });
  sum.finish();
  hand_in_to_state(thread, n, block, state);
}

// Counts the products of a tile that are not finite, where one factor is a wide integer: an
// infinity must meet the whole integer, not its halves, which may be 0 or of another sign.
template <class Thread, class Elements>
KORVEX_COLD void count_special_products(const CountingThread<Thread>& thread, Elements x,
                                        Elements y, int count) {
  for (int place = thread.lane(); place < count; place += kLanes) {
    const double x_factor = x.whole(place);
    const double y_factor = y.whole(place);
    if (!arithmetic::is_finite(x_factor) || !arithmetic::is_finite(y_factor)) {
      thread.count_special(arithmetic::mul_rn(x_factor, y_factor));
    }
  }
}

// Adds the products of a tile, of which elements may be wide integers.
template <class Thread, class Elements>
KORVEX_INLINE void add_products_of_tile(const CountingThread<Thread>& counting,
                                        const WarpProducts<CountingThread<Thread>>& products,
                                        Elements x, Elements y, int count) {
  if (x.is_wide() != y.is_wide()) {
    count_special_products(counting, x, y, count);
    x = x.finite();
    y = y.finite();
  }
  const int x_halves = x.is_wide() ? 2 : 1;
  const int y_halves = y.is_wide() ? 2 : 1;
  // One loop, as the code of a tile is long.
  for (int pass = 0; pass < x_halves * y_halves; ++pass) {
    products.add_tile(pass % x_halves == 0 ? x : x.low(), pass / x_halves == 0 ? y : y.low(),
                      count);
  }
}

template <class Thread>
KORVEX_HD void add_products_by_grid(const Thread& thread, const StateElements& x,
                                    const StateElements& y, std::int64_t n,
                                    const StateTarget& state,
                                    StateBlockMemory<arithmetic::ExactProductSum>& block) {
  clear_state_block(thread, block);
  const CountingThread<Thread> counting(thread, block.specials);
  const WarpProducts<CountingThread<Thread>> products(counting, block.found.digits[thread.warp()],
                                                      block.found.special);
  for_tiles_of_warp<kDotTile>(thread, n, [&](std::int64_t begin, int count) {
    add_products_of_tile(counting, products, x + begin, y + begin, count);
  });
  hand_in_to_state(thread, n, block, state);
}

// --- One block on one state

// Memory of that block: the words, and room for the state in which its first thread works.
struct StateWorkMemory {
  std::int64_t words[arithmetic::state_words(arithmetic::StateKind::kMoments)];
  alignas(arithmetic::ExactState) unsigned char state[sizeof(arithmetic::ExactState)];
};

template <class Thread>
KORVEX_HD void load_words(const Thread& thread, const std::int64_t* words, int count,
                          StateWorkMemory& block) {
  for (int i = thread.index(); i < count; i += thread.threads()) {
    block.words[i] = words[i];
  }
  thread.sync_block();
}

// Brings the digits of a state into [0, 2^32). Words that are no state stay as they are.
template <class Thread>
KORVEX_HD void settle_by_block(const Thread& thread, arithmetic::StateKind kind,
                               std::int64_t* words, StateWorkMemory& block) {
  const int count = arithmetic::state_words(kind);
  load_words(thread, words, count, block);
  if (thread.index() == 0) {
    auto& state = *new (block.state) arithmetic::ExactState(kind);
    if (state.load(block.words)) {
      state.store(block.words);
    }
  }
  thread.sync_block();
  for (int i = thread.index(); i < count; i += thread.threads()) {
    words[i] = block.words[i];
  }
}

// Writes the value of a state, rounded once; NaN where the words are no state. Precondition: no
// count is below zero.
template <class Thread>
KORVEX_HD void round_by_block(const Thread& thread, arithmetic::StateKind kind,
                              const std::int64_t* words, bool of_products, int format, void* out,
                              StateWorkMemory& block) {
  load_words(thread, words, arithmetic::state_words(kind), block);
  if (thread.index() != 0) {
    return;
  }
  auto& state = *new (block.state) arithmetic::ExactState(kind);
  double value = arithmetic::canonical_nan();
  if (state.load(block.words)) {
    if (is_narrow_result(format)) {
      value = state.round_to(narrow_result(format), of_products);
    } else {
      state.round(of_products, 1, &value);
    }
  }
  write_result(value, format, out);
}

}  // namespace korvex::kernels
