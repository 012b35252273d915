// SPDX-License-Identifier: Apache-2.0
// Feeds the terms of a sum into an exact sum, chunk by chunk through a biased cascade where that is
// exact. The terms are the elements of an array (Addends, below) or products of pairs (Products).
//
// Phases for each chunk: run the cascade as planned; where it reports that it was not exact, look
// at the chunk's exponents, plan anew and run it once more; where no plan suits, give each element
// to the long accumulator, and do not try the cascade for a few chunks. So nothing is ever lost,
// and the result does not depend on the plan. Counts of grid units are kept as integers over
// many chunks and go into the ExactSum when the plan changes. On a host a cascade
// for elements in a window of exponents is tried first, as it takes fewer steps.
//
// Once a NaN or an infinity was among the terms, finite ones cannot change what comes out: the rest
// is only searched for what can, a NaN or an infinity of the other sign, and not added.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/biased_cascade.h"
#include "korvex/arithmetic/exact/exact_sum.h"

namespace korvex::arithmetic {

// The exponents among some doubles: floor(log2) of the largest and of the smallest non-zero
// magnitude, subnormal ones counted as kMinExponent.
struct ExponentRange {
  int highest;
  int lowest;
  bool is_finite;

  // Elements: a pointer to doubles, or what gives a double for an index as such a pointer does.
  template <class Elements>
  KORVEX_COLD static ExponentRange of(Elements x, std::int64_t count) {
    std::uint64_t largest = 0;
    std::uint64_t smallest_less_one = ~std::uint64_t{0};  // as an unsigned number: zero is last
    for (std::int64_t i = 0; i < count; ++i) {
      const std::uint64_t magnitude = magnitude_bits(x[i]);
      largest = magnitude > largest ? magnitude : largest;
      smallest_less_one = magnitude - 1 < smallest_less_one ? magnitude - 1 : smallest_less_one;
    }
    return {exponent_of(largest), exponent_of(smallest_less_one + 1), largest < kInfinityBits};
  }

  KORVEX_INLINE static int exponent_of(std::uint64_t magnitude) {
    const int field = static_cast<int>(magnitude >> kFractionBits);
    return (field == 0 ? 1 : field) - kExponentBias;
  }
};

// Terms that are the elements of an array.
//
// A type of terms says what they are summed in (Sum), how a chunk of them runs through slices
// (Cascade, run), from which exponent on one for a window is exact (kLeastInWindow), how they
// are added one by one (add, add_wide), which exponents they have (range) and what tells finite
// ones from others (load, add_specials).
struct Addends {
  using Sum = ExactSum;
  static constexpr int kBits = kSliceBits;  // from slice to slice
  static constexpr int kMinSlices = 2;
  static constexpr int kLeastInWindow = kMinExponent;
  template <class Lanes, int kSlices, int kStreams, bool kInWindow>
  using Cascade = BiasedCascade<Lanes, kSlices, kStreams, kBits, kInWindow>;

  const double* x;

  KORVEX_INLINE Addends from(std::int64_t index) const { return {x + index}; }

  // Runs `count` terms; true where the cascade holds exactly their sum then.
  template <class Cascade>
  KORVEX_INLINE bool run(Cascade& cascade, std::int64_t count) const {
    KORVEX_UNROLL_4
    for (std::int64_t i = 0; i < count; i += Cascade::kStep) {
      cascade.feed(x + i);
    }
    return cascade.is_exact();
  }
  KORVEX_INLINE void add(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      sum.add(x[i]);
    }
  }
  // The same for terms that are expected not to suit four limbs.
  KORVEX_INLINE void add_wide(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      sum.add_wide(x[i]);
    }
  }
  KORVEX_INLINE ExponentRange range(std::int64_t count) const {
    return ExponentRange::of(x, count);
  }
  // Lanes of terms, each rounded: a finite product may become an infinity.
  template <class Lanes>
  KORVEX_INLINE typename Lanes::Value load() const {
    return Lanes::load(x);
  }
  // Adds the infinities and NaN among `count` terms; true where there are any.
  KORVEX_COLD bool add_specials(std::int64_t count, Sum& sum) const {
    for (std::int64_t i = 0; i < count; ++i) {
      if (!is_finite(x[i])) {
        sum.add(x[i]);
      }
    }
    return !sum.is_sum_of_finite();
  }
  // The least exponent that a plan for terms up to this exponent is to cover.
  KORVEX_INLINE static int usual_bottom(int top) { return top; }
};

// Where the slices of a cascade lie.
template <class Terms>
struct CascadePlan {
  static constexpr int kHighestBias = ExactSum::kHighestScale + kFractionBits;
  static constexpr int kBits = Terms::kBits;
  static constexpr int kMinSlices = Terms::kMinSlices;

  int top = kMinExponent;     // exponent that the first slice was chosen for
  int bottom = kMinExponent;  // exponent of the smallest element to be held in full
  int slices = 0;             // 0: no plan yet

  // Elements of exponent bottom have their last bit at 2^(bottom - 52), which is the grid of a
  // slice of bias exponent bottom.
  KORVEX_COLD static CascadePlan covering(int top, int bottom) {
    const int span = top + kBiasAboveExponent - bottom;
    const int slices = 1 + (span + kBits - 1) / kBits;
    return {top, bottom, slices < kMinSlices ? kMinSlices : slices};
  }

  // The grid of the last slice need not be finer than 2^-1074, so the bias is raised for small
  // data.
  KORVEX_INLINE int bias_exponent() const {
    const int wanted = top + kBiasAboveExponent;
    const int least = kMinExponent + (slices - 1) * kBits;
    return wanted < least ? least : wanted;
  }
};

// Whether a cascade for elements in a window is tried; nothing where none ever is.
template <bool kTries>
struct WindowTrial {
  bool is_in_window_ = false;
};
template <>
struct WindowTrial<false> {};

template <class Lanes, int kStreams, class Terms = Addends>
class ChunkedSum : private WindowTrial<Lanes::kTriesWindow> {
 public:
  using Sum = typename Terms::Sum;

  KORVEX_INLINE explicit ChunkedSum(Sum& sum) : sum_(sum) {
    for (std::int64_t& count : count_) {
      count = 0;
    }
  }

  // Adds n terms; once one of them, or of those before, is not finite, only what still matters.
  KORVEX_COLD void add(const Terms& terms, std::int64_t n) {
    std::int64_t begin = 0;
    for (; n - begin >= kStep && sum_.is_sum_of_finite(); begin += chunk_size(n - begin)) {
      add_chunk(terms.from(begin), chunk_size(n - begin));
    }
    flush();
    if (sum_.is_sum_of_finite()) {
      terms.from(begin).add(n - begin, sum_);
    } else {
      add_what_matters(terms.from(begin), n - begin);
    }
  }

 private:
  using Plan = CascadePlan<Terms>;
  static constexpr int kMaxSlices = Lanes::kMaxSlices;
  static constexpr int kStep = Lanes::kCount * kStreams;
  static constexpr int kChunk = kStep * kCascadeSteps;
  static constexpr int kChunksOfPlan = 64;  // then look at the exponents again
  static constexpr int kChunksOfRest = 8;   // without the cascade after a chunk it cannot hold
  // A count grows by at most kStep * 2^51 a chunk.
  static_assert(kStep * kChunksOfPlan <= 1 << 11, "counts must stay below 2^62");
  static constexpr bool kHasWindow = Lanes::kTriesWindow;
  // For a window a plan is made from the first elements of a chunk, as short sums would otherwise
  // spend more on the plan than on the cascade, and holds elements so many binades above these.
  static constexpr std::int64_t kLook = 64;
  static constexpr int kHeadroom = 2;
  static_assert(!kHasWindow || kLook % kStep == 0);

  // The next chunk out of `rest` elements: a whole number of steps.
  KORVEX_INLINE static std::int64_t chunk_size(std::int64_t rest) {
    return rest >= kChunk ? kChunk : rest - rest % kStep;
  }

  KORVEX_HD void add_chunk(const Terms& terms, std::int64_t count) {
    if (chunks_of_rest_ > 0) {
      --chunks_of_rest_;
      terms.add_wide(count, sum_);
      return;
    }
    if (chunks_of_plan_ == 0 && !plan_afresh(terms, count)) {
      rest_after(terms, count);
      return;
    }
    --chunks_of_plan_;
    if (!run<Plan::kMinSlices>(terms, count) &&
        !(widen_plan(terms, count) && run<Plan::kMinSlices>(terms, count))) {
      rest_after(terms, count);
    }
  }

  // After an infinity or a NaN: looks for one that makes the sum NaN. Infinity plus a finite term
  // or plus itself is itself in all bits.
  KORVEX_COLD void add_what_matters(const Terms& terms, std::int64_t n) {
    const double so_far = sum_.infinity_so_far();
    std::int64_t begin = 0;
    while (n - begin >= kStep && !sum_.is_decided()) {
      const std::int64_t count = chunk_size(n - begin);
      if (!leaves(so_far, terms.from(begin), count)) {
        terms.from(begin).add_specials(count, sum_);
      }
      begin += count;
    }
    if (!sum_.is_decided()) {
      terms.from(begin).add_specials(n - begin, sum_);
    }
  }

  KORVEX_COLD static bool leaves(double so_far, const Terms& terms, std::int64_t count) {
    const typename Lanes::Value expected(so_far);
    typename Lanes::Bits changed{};
    for (std::int64_t i = 0; i < count; i += Lanes::kCount) {
      const typename Lanes::Value sum = add_rn(expected, terms.from(i).template load<Lanes>());
      changed |= to_bits(sum) ^ to_bits(expected);
    }
    return Lanes::any(changed) == 0;
  }

  KORVEX_COLD void rest_after(const Terms& terms, std::int64_t count) {
    if (terms.add_specials(count, sum_)) {
      return;
    }
    chunks_of_rest_ = kChunksOfRest;
    chunks_of_plan_ = 0;
    terms.add_wide(count, sum_);
  }

  // A plan for the largest element, with as few slices as may do. False where there is none.
  KORVEX_COLD bool plan_afresh(const Terms& terms, std::int64_t count) {
    const std::int64_t looked_at = kHasWindow && count > kLook ? kLook : count;
    const ExponentRange range = terms.range(looked_at);
    if (!range.is_finite || range.highest + kBiasAboveExponent > Plan::kHighestBias) {
      return false;
    }
    int top = range.highest;
    if constexpr (kHasWindow) {
      this->is_in_window_ = lies_in_window(terms, looked_at, top + kHeadroom);
      top += this->is_in_window_ ? kHeadroom : 0;
    }
    adopt({top, Terms::usual_bottom(top), Plan::kMinSlices});
    return true;
  }

  // A plan for all elements of the chunk, and for those of the plan so far where slices suffice.
  KORVEX_COLD bool widen_plan(const Terms& terms, std::int64_t count) {
    const ExponentRange range = terms.range(count);
    if (!range.is_finite || range.highest + kBiasAboveExponent > Plan::kHighestBias) {
      return false;
    }
    const int top = range.highest > plan_.top ? range.highest : plan_.top;
    const int bottom = range.lowest < plan_.bottom ? range.lowest : plan_.bottom;
    Plan plan = Plan::covering(top, bottom);
    if (plan.slices > kMaxSlices) {
      plan = Plan::covering(range.highest, range.lowest);
    }
    if (plan.slices > kMaxSlices) {
      return false;
    }
    const int chunks_left = chunks_of_plan_;
    adopt(plan);
    chunks_of_plan_ = chunks_left;
    return true;
  }

  KORVEX_COLD void adopt(const Plan& plan) {
    flush();
    plan_ = plan;
    chunks_of_plan_ = kChunksOfPlan;
  }

  // Runs the cascade with the planned number of slices; false, with nothing added, where inexact.
  template <int kSlices>
  KORVEX_COLD bool run(const Terms& terms, std::int64_t count) {
    if constexpr (kSlices < kMaxSlices) {
      if (plan_.slices > kSlices) {
        return run<kSlices + 1>(terms, count);
      }
    }
    if constexpr (kHasWindow && kSlices == Plan::kMinSlices) {
      if (this->is_in_window_) {
        typename Terms::template Cascade<Lanes, kSlices, kStreams, true> cascade(
            plan_.bias_exponent(), ExponentWindow::bottom(plan_.top));
        if (terms.run(cascade, count)) {
          keep<0, kSlices>(cascade);
          return true;
        }
        this->is_in_window_ = false;
      }
    }
    typename Terms::template Cascade<Lanes, kSlices, kStreams, false> cascade(
        plan_.bias_exponent());
    if (!terms.run(cascade, count)) {
      return false;
    }
    keep<0, kSlices>(cascade);
    return true;
  }

  // Whether so many elements are in a window, and one may be planned: often they show that others
  // are zeros.
  KORVEX_COLD static bool lies_in_window(const Terms& terms, std::int64_t count, int top) {
    const int bottom = ExponentWindow::bottom(top);
    if (bottom < Terms::kLeastInWindow || top + kBiasAboveExponent > Plan::kHighestBias) {
      return false;
    }
    const typename Lanes::Value least(power_of_two(bottom));
    typename Lanes::Bits seen{};
    for (std::int64_t i = 0; i < count; i += Lanes::kCount) {
      seen |= to_bits(terms.from(i).template load<Lanes>()) - to_bits(least);
    }
    return !ExponentWindow::left(Lanes::any(seen));
  }

  template <int kSlice, int kSlices, class Cascade>
  KORVEX_INLINE void keep(const Cascade& cascade) {
    count_[kSlice] += cascade.template count<kSlice>();
    if constexpr (kSlice + 1 < kSlices) {
      keep<kSlice + 1, kSlices>(cascade);
    }
  }

  KORVEX_COLD void flush() {
    for (int slice = 0; slice < plan_.slices; ++slice) {
      sum_.add_scaled(count_[slice], plan_.bias_exponent() - slice * Plan::kBits - kFractionBits);
      count_[slice] = 0;
    }
  }

  Sum& sum_;  // what was added, but for what count_ holds
  Plan plan_;
  // Grid units of each slice of plan_, at most 2^62 in magnitude; zero beyond plan_.slices.
  std::int64_t count_[kMaxSlices];
  int chunks_of_plan_ = 0;  // chunks for which plan_ still stands
  int chunks_of_rest_ = 0;  // chunks for which the cascade is not tried
};

}  // namespace korvex::arithmetic
