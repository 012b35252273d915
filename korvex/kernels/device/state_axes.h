// SPDX-License-Identifier: Apache-2.0
// Adds arrays of any strides to many exact states, one for each index of the dimensions that stay.
//
// What is added to one state is cut into parts, and a team takes one part of one output at a time:
// a block, or a warp where outputs have few elements. A team takes its tiles by the code of the
// parallel sums into digits of its own, and adds those to the state by atomic additions of integers
// as state_sums.h does. So neither the teams nor the parts show in the result, and no operand is
// copied.
#pragma once

#include "korvex/kernels/device/state_sums.h"

namespace korvex::kernels {

// Words that describe operands of one shape, in this order: those that PlanWord names, the extents
// of the dimensions that stay and then of the others, and the byte strides of each operand along
// them. The last dimension of either kind counts fastest.
class AxisPlan {
 public:
  KORVEX_INLINE explicit AxisPlan(const std::int64_t* words) : words_(words) {}

  KORVEX_INLINE int kept() const { return static_cast<int>(words_[kPlanKept]); }
  KORVEX_INLINE int reduced() const { return static_cast<int>(words_[kPlanReduced]); }
  KORVEX_INLINE std::int64_t run() const { return words_[kPlanRun]; }
  KORVEX_INLINE std::int64_t elements() const { return words_[kPlanElements]; }
  KORVEX_INLINE std::int64_t parts() const { return words_[kPlanParts]; }
  KORVEX_INLINE bool is_by_block() const { return words_[kPlanByBlock] != 0; }
  // Whether elements of a run lie at more than one distance.
  KORVEX_INLINE bool has_folded_runs() const { return reduced() > 1 && run() == elements(); }

  KORVEX_INLINE std::int64_t offset_of_output(int operand, std::int64_t output) const {
    return offset(operand, 0, kept(), output);
  }
  KORVEX_INLINE std::int64_t offset_of_run(int operand, std::int64_t run) const {
    return run == 0 ? 0 : offset(operand, kept(), kept() + reduced() - 1, run);
  }
  KORVEX_HD std::int64_t offset_of_element(int operand, std::int64_t element) const {
    return offset(operand, kept(), kept() + reduced(), element);
  }
  // Of elements of a run that is not folded.
  KORVEX_INLINE std::int64_t stride_of_run(int operand) const {
    return reduced() == 0 ? 0 : stride(operand, kept() + reduced() - 1);
  }

 private:
  KORVEX_INLINE std::int64_t extent(int dimension) const { return words_[kPlanWords + dimension]; }
  KORVEX_INLINE std::int64_t stride(int operand, int dimension) const {
    const int dimensions = kept() + reduced();
    return words_[kPlanWords + (1 + operand) * dimensions + dimension];
  }
  KORVEX_HD std::int64_t offset(int operand, int begin, int end, std::int64_t index) const {
    std::int64_t sum = 0;
    for (int d = end - 1; d > begin; --d) {
      sum += index % extent(d) * stride(operand, d);
      index /= extent(d);
    }
    return end > begin ? sum + index * stride(operand, begin) : sum;
  }

  const std::int64_t* words_;
};

// Elements of one output from one on, as StateElements has those of a vector.
class AxisElements {
 public:
  // `first` is the first element of an output.
  KORVEX_INLINE AxisElements(const StateElements& first, const AxisPlan& plan, int operand)
      : elements_(first), plan_(plan), operand_(operand), is_folded_(plan.has_folded_runs()) {}

  KORVEX_INLINE bool is_wide() const { return elements_.is_wide(); }
  KORVEX_INLINE AxisElements low() const { return with(elements_.low()); }
  KORVEX_INLINE AxisElements finite() const { return with(elements_.finite()); }
  // The elements of a run, from one on.
  KORVEX_INLINE AxisElements at(std::int64_t run, std::int64_t begin) const {
    AxisElements other = with(elements_.moved(plan_.offset_of_run(operand_, run)));
    other.begin_ = begin;
    return other;
  }
  KORVEX_INLINE double operator[](std::int64_t place) const {
    return is_folded_ ? folded_value(elements_, plan_, operand_, begin_ + place)
                      : (elements_ + (begin_ + place))[0];
  }
  KORVEX_COLD double whole(int place) const {
    return is_folded_ ? folded(elements_, plan_, operand_, begin_ + place).whole(0)
                      : (elements_ + begin_).whole(place);
  }
  template <int kCount>
  KORVEX_INLINE void load_lane(int lane, double* into) const {
    if (!is_folded_) {
      (elements_ + begin_).template load_lane<kCount>(lane, into);
      return;
    }
    for (int i = 0; i < kCount; ++i) {
      into[i] = folded_value(elements_, plan_, operand_, begin_ + std::int64_t{i} * kLanes + lane);
    }
  }

 private:
  KORVEX_INLINE AxisElements with(const StateElements& elements) const {
    AxisElements other = *this;
    other.elements_ = elements;
    return other;
  }
  KORVEX_INLINE static StateElements folded(const StateElements& first, const AxisPlan& plan,
                                            int operand, std::int64_t element) {
    return first.moved(plan.offset_of_element(operand, element));
  }
  // By value, so that no array has to lie in the memory of a thread for the call.
  KORVEX_COLD static double folded_value(StateElements first, AxisPlan plan, int operand,
                                         std::int64_t element) {
    return folded(first, plan, operand, element)[0];
  }

  StateElements elements_;
  AxisPlan plan_;
  std::int64_t begin_ = 0;
  int operand_;
  bool is_folded_;
};

// An operand of which each output has its elements.
struct AxisOperand {
  const void* data;
  int format;
  int number;  // in the plan

  KORVEX_INLINE AxisElements of_output(const AxisPlan& plan, std::int64_t output) const {
    const StateElements first(data, plan.stride_of_run(number), format);
    return {first.moved(plan.offset_of_output(number, output)), plan, number};
  }
};

// The states of the outputs: `words` from one to the next. Where counts is null nothing is counted.
struct AxisStates {
  std::int64_t* digits;
  std::int64_t* counts;
  std::int64_t words;
  std::int64_t sign;
};

// Memory of a block; its content at the start does not matter.
template <class Sum>
struct TeamMemory {
  std::int64_t digits[kMaxWarps][kDigitsOf<Sum>];  // of each warp
  std::int64_t specials[kMaxWarps][kSpecialCounts];
  unsigned special;  // nothing sets it, as threads count
};

// The block, or the warp, that a thread is of; all of it takes the same item.
template <class Thread>
class Team {
 public:
  KORVEX_INLINE Team(const Thread& thread, bool is_block) : thread_(thread), is_block_(is_block) {}

  KORVEX_INLINE int warps() const { return is_block_ ? thread_.warps() : 1; }
  KORVEX_INLINE int first_warp() const { return is_block_ ? 0 : thread_.warp(); }
  KORVEX_INLINE int warp() const { return thread_.warp() - first_warp(); }
  KORVEX_INLINE int index() const { return is_block_ ? thread_.index() : thread_.lane(); }
  KORVEX_INLINE int threads() const { return warps() * kLanes; }
  // Warps of all blocks come before the second ones of each.
  KORVEX_INLINE std::int64_t first_item() const {
    return is_block_ ? thread_.block() : thread_.warp() * thread_.blocks() + thread_.block();
  }
  KORVEX_INLINE std::int64_t item_stride() const {
    return is_block_ ? thread_.blocks() : thread_.warps() * thread_.blocks();
  }
  KORVEX_INLINE void sync() const {
    if (is_block_) {
      thread_.sync_block();
    } else {
      thread_.sync_warp();
    }
  }

 private:
  const Thread& thread_;
  bool is_block_;
};

// Calls add(run, begin, count) for the tiles of this warp of one part.
template <int kElements, class Thread, class Add>
KORVEX_INLINE void for_tiles_of_part(const Team<Thread>& team, const AxisPlan& plan,
                                     std::int64_t part, const Add& add) {
  const std::int64_t run = plan.run();
  const std::int64_t tiles_of_run = (run + kElements - 1) / kElements;
  const std::int64_t runs = run == 0 ? 0 : plan.elements() / run;
  const std::int64_t stride = plan.parts() * team.warps();
  for (std::int64_t tile = part * team.warps() + team.warp(); tile < runs * tiles_of_run;
       tile += stride) {
    const std::int64_t own_run = runs == 1 ? 0 : tile / tiles_of_run;
    const std::int64_t begin = (tile - own_run * tiles_of_run) * kElements;
    const std::int64_t rest = run - begin;
    add(own_run, begin, rest < kElements ? static_cast<int>(rest) : kElements);
  }
}

// Adds what a team has found to a state. Taken away, products have infinities of the other sign.
template <class Thread, class Sum>
KORVEX_HD void hand_in_of_team(const Thread& thread, const Team<Thread>& team,
                               const TeamMemory<Sum>& block, const AxisStates& states,
                               std::int64_t output) {
  const int begin = team.first_warp();
  const int end = begin + team.warps();
  std::int64_t* digits = states.digits + output * states.words;
  for (int i = team.index(); i < kDigitsOf<Sum>; i += team.threads()) {
    std::int64_t digit = 0;
    for (int warp = begin; warp < end; ++warp) {
      digit += block.digits[warp][i];
    }
    const std::int64_t above = digit >> kDigitBits;
    const std::int64_t own = digit & kDigitMask;
    if (own != 0) {
      thread.add_to_grid(digits[i], with_sign(own, states.sign));
    }
    if (above != 0) {
      thread.add_to_grid(digits[i + 1], with_sign(above, states.sign));
    }
  }
  const int kind = team.index();
  if (states.counts == nullptr || kind >= kSpecialCounts) {
    return;
  }
  std::int64_t count = 0;
  for (int warp = begin; warp < end; ++warp) {
    count += block.specials[warp][kind];
  }
  if (count != 0) {
    const int place =
        states.sign > 0 || kind == kNans ? kind : kPlusInfinities + kMinusInfinities - kind;
    thread.add_to_grid(states.counts[output * states.words + place], count);
  }
}

// Zeroes what the threads of a warp have of a block's memory; by all of them.
template <class Thread, class Sum>
KORVEX_INLINE void clear_warp(const Thread& thread, TeamMemory<Sum>& block) {
  for (int i = thread.lane(); i < kDigitsOf<Sum>; i += kLanes) {
    block.digits[thread.warp()][i] = 0;
  }
  if (thread.lane() < kSpecialCounts) {
    block.specials[thread.warp()][thread.lane()] = 0;
  }
  thread.sync_warp();
}

// Calls add(team, output, part) for the items of each team, each of which finds its warp's memory
// zero and leaves there what it has found.
template <class Thread, class Sum, class Add>
KORVEX_INLINE void for_items_of_team(const Thread& thread, const AxisPlan& plan, std::int64_t items,
                                     TeamMemory<Sum>& block, const AxisStates& states,
                                     const Add& add) {
  const Team<Thread> team(thread, plan.is_by_block());
  for (std::int64_t item = team.first_item(); item < items; item += team.item_stride()) {
    clear_warp(thread, block);
    const std::int64_t output = item / plan.parts();
    add(team, output, item % plan.parts());
    team.sync();
    hand_in_of_team(thread, team, block, states, output);
    team.sync();
  }
}

// Adds the elements of a part to the memory of a warp of a team.
template <class Thread>
KORVEX_INLINE void add_elements_of_part(const Thread& thread, const Team<Thread>& team,
                                        const AxisPlan& plan, const AxisOperand& x,
                                        std::int64_t output, std::int64_t part,
                                        TeamMemory<arithmetic::ExactSum>& block) {
  using Counting = CountingThread<Thread>;
  const AxisElements elements = x.of_output(plan, output);
  WarpSum<Counting> sum(Counting(thread, block.specials[thread.warp()]),
                        block.digits[thread.warp()], block.special);
  int tiles_before_carry = kTilesBetweenCarries / 2;  // a tile may be taken twice
  for_tiles_of_part<kTile>(team, plan, part, [&](std::int64_t run, std::int64_t begin, int count) {
    const AxisElements tile = elements.at(run, begin);
    sum.add_tile(tile, count);
    if (tile.is_wide()) {
      sum.add_tile(tile.low(), count);
    }
    if (--tiles_before_carry == 0) {
      const WarpSum<Counting> copy = sum;
      copy.carry();
      tiles_before_carry = kTilesBetweenCarries / 2;
    }
  });
  sum.finish();
}

// Preconditions, here and below: all threads of a grid call this, each block is 1 to kMaxWarps
// whole warps, elements are aligned to their size, and the digits have room for what each part
// adds, which is less than 2^34. Items: as many outputs from `first` on as there are states, times
// the parts.
template <class Thread>
KORVEX_HD void add_axes_by_grid(const Thread& thread, std::int64_t items, std::int64_t first,
                                const AxisPlan& plan, const AxisOperand& x,
                                const AxisStates& states, TeamMemory<arithmetic::ExactSum>& block) {
  for_items_of_team(thread, plan, items, block, states,
                    [&](const Team<Thread>& team, std::int64_t output, std::int64_t part) {
                      add_elements_of_part(thread, team, plan, x, first + output, part, block);
                    });
}

template <class Thread>
KORVEX_HD void multiply_axes_by_grid(const Thread& thread, std::int64_t items, std::int64_t first,
                                     const AxisPlan& plan, const AxisOperand& x,
                                     const AxisOperand& y, const AxisStates& states,
                                     TeamMemory<arithmetic::ExactProductSum>& block) {
  using Counting = CountingThread<Thread>;
  const Counting counting(thread, block.specials[thread.warp()]);
  const WarpProducts<Counting> products(counting, block.digits[thread.warp()], block.special);
  for_items_of_team(thread, plan, items, block, states,
                    [&](const Team<Thread>& team, std::int64_t output, std::int64_t part) {
                      const AxisElements x_elements = x.of_output(plan, first + output);
                      const AxisElements y_elements = y.of_output(plan, first + output);
                      for_tiles_of_part<kDotTile>(
                          team, plan, part, [&](std::int64_t run, std::int64_t begin, int count) {
                            add_products_of_tile(counting, products, x_elements.at(run, begin),
                                                 y_elements.at(run, begin), count);
                          });
                    });
}

}  // namespace korvex::kernels
