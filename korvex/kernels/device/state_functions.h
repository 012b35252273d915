// SPDX-License-Identifier: Apache-2.0
// Values of many exact states: sums, means, variances and roots, each rounded once to a format.
//
// The first lane of each warp takes a state at a time, by integers in the memory of its block.
// Words of zeros at the end are cut off first, and bits of a fraction put there, so that quotients
// are short and the bit that decides the rounding is among their bits. The host's twin is
// korvex/kernels/host/exact_result.cpp; it differs in that it has the memory of a thread for its
// numbers, and shorter ways for means. Tests hold that the two write equal bits.
#pragma once

#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/rounding.h"
#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/device/state_results.h"
#include "korvex/kernels/device/warp_sum.h"

namespace korvex::kernels {

constexpr int kFunctionWorkers = kGridBlock / kLanes;

// What an output is of its elements.
struct StateFunction {
  int function;               // one of StateFunctionNumber
  std::int64_t elements;      // of each output
  std::uint64_t divisor = 1;  // of a variance: divisor / scale, and NaN where it is 0
  std::uint64_t scale = 1;

  KORVEX_INLINE bool is_of_variance() const {
    return function == kVarianceFunction || function == kDeviationFunction;
  }
  KORVEX_INLINE arithmetic::StateKind kind() const {
    return is_of_variance() ? arithmetic::StateKind::kMoments
           : function == kDotProductFunction || function == kNormFunction
               ? arithmetic::StateKind::kDot
               : arithmetic::StateKind::kSum;
  }
};

// Big numbers of one worker, where no function is of products.
struct SumMemory {
  // The numerator of a variance is below 2^4322 times the scale.
  static constexpr int kMostFraction = 256;  // bits
  using Quotient = arithmetic::Natural<70 + kMostFraction / 64>;
  static constexpr bool kHasProducts = false;

  arithmetic::LongAccumulator sum;
  arithmetic::LongAccumulator::Magnitude total;
  Quotient quotient;
};

// The same for every function.
struct FunctionMemory : SumMemory {
  static constexpr bool kHasProducts = true;

  arithmetic::ProductAccumulator products;
  arithmetic::ProductAccumulator::Magnitude squares;
  Quotient other;
};

// Rounds (x + t) * 2^exponent or its root, where 0 < t < 1 if has_more, else t = 0.
struct NumberRounding {
  int format;

  // Precondition where has_more: x has at least 64 bits, and 2^exponent is below half of the least
  // double.
  template <int kWords>
  KORVEX_COLD double number(const arithmetic::Natural<kWords>& x, int exponent,
                            bool has_more) const {
    using namespace arithmetic;
    if (!is_narrow_result(format)) {
      return nearest(x, exponent, has_more);
    }
    return round_to_format(nearest_odd(x, exponent, has_more), narrow_result(format));
  }

  // Preconditions: exponent is even; where has_more, x has at least 130 bits.
  template <int kWords>
  KORVEX_COLD double root(const arithmetic::Natural<kWords>& x, int exponent, bool has_more) const {
    using namespace arithmetic;
    const int highest = highest_bit(x);
    if (highest < 0) {
      return 0.0;
    }
    // The leading 127 or 128 bits give 64 of the root; from an even bit on, so that the root has a
    // whole exponent.
    const int lowest = highest - 126 - (highest & 1);
    Natural<2> found;
    const bool is_exact = square_root(shifted_down<2>(x, lowest), 0, found);
    return number(found, (lowest + exponent) / 2, has_more || !is_exact || any_below(x, lowest));
  }
};

// One worker: the value of a state by a function.
template <class Memory>
class FunctionWorker {
 public:
  KORVEX_INLINE FunctionWorker(const StateFunction& function, int format, Memory& memory)
      : function_(function), rounding_{format}, memory_(memory) {}

  // NaN where the words are no state.
  KORVEX_COLD double value(const std::int64_t* words) {
    const arithmetic::StateKind kind = function_.kind();
    bool is_state = true;
    if (arithmetic::has_sum(kind)) {
      is_state = memory_.sum.load(words);
      words += arithmetic::LongAccumulator::kDigits;
    }
    if constexpr (Memory::kHasProducts) {
      if (arithmetic::has_products(kind)) {
        is_state = memory_.products.load(words) && is_state;
        words += arithmetic::ProductAccumulator::kDigits;
      }
    }
    const arithmetic::TermCounts counts = {words[0], words[1], words[2], words[3]};
    if (!is_state) {
      return arithmetic::canonical_nan();
    }
    return value_of_memory(counts);
  }

  // The same of what the memory holds; the counts are of its infinities and NaN.
  KORVEX_COLD double value_of_memory(const arithmetic::TermCounts& counts) {
    if (!counts.is_finite()) {
      return function_.is_of_variance() ? arithmetic::canonical_nan() : counts.special();
    }
    if (function_.function == kTotalFunction) {
      return rounded(memory_.sum);
    }
    if (function_.function == kMeanFunction) {
      return mean();
    }
    if constexpr (Memory::kHasProducts) {
      return value_of_products();
    }
    return arithmetic::canonical_nan();
  }

 private:
  KORVEX_COLD double value_of_products() {
    return function_.function == kDotProductFunction ? rounded(memory_.products)
           : function_.function == kNormFunction     ? norm()
                                                     : variance();
  }

  template <class Long>
  KORVEX_COLD double rounded(Long& value) const {
    double nearest;
    value.round(&nearest, 1);
    const bool needs_rest = is_narrow_result(rounding_.format) && arithmetic::is_finite(nearest);
    return rounded_once(nearest, needs_rest ? value.sign() : 0, rounding_.format);
  }

  KORVEX_COLD double mean() {
    if (function_.elements == 0) {
      return arithmetic::canonical_nan();
    }
    constexpr int kFraction = 128;  // bits: the quotient has more than 64
    const bool is_negative = memory_.sum.magnitude(memory_.total);
    const int cut = 64 * arithmetic::zero_words(memory_.total);
    arithmetic::shift_down(memory_.total, cut - kFraction, memory_.quotient);
    const bool has_more =
        arithmetic::divide(memory_.quotient, static_cast<std::uint64_t>(function_.elements));
    const int exponent = arithmetic::kUnitExponent + cut - kFraction;
    return arithmetic::with_sign(rounding_.number(memory_.quotient, exponent, has_more),
                                 is_negative);
  }

  KORVEX_COLD double norm() {
    memory_.products.magnitude(memory_.squares);
    return rounding_.root(memory_.squares, 2 * arithmetic::kUnitExponent, false);
  }

  // With n elements of sum s and sum of squares q it is (n q - s^2) / (n * divisor / scale), whose
  // numerator is not negative (Cauchy-Schwarz).
  KORVEX_COLD double variance() {
    if (function_.divisor == 0 || function_.elements == 0) {
      return arithmetic::canonical_nan();
    }
    constexpr int kFraction = Memory::kMostFraction;  // the quotient has more than 128 bits
    Memory& m = memory_;
    m.sum.magnitude(m.total);
    m.products.magnitude(m.squares);
    const int of_total = arithmetic::zero_words(m.total);
    const int of_squares = arithmetic::zero_words(m.squares) / 2;
    const int cut = of_total < of_squares ? of_total : of_squares;
    arithmetic::shift_down(m.total, 64 * cut, m.total);
    arithmetic::shift_down(m.squares, 128 * cut, m.squares);
    const auto count = static_cast<std::uint64_t>(function_.elements);
    arithmetic::multiply(m.squares, count, m.quotient);
    arithmetic::square(m.total, m.other);
    arithmetic::subtract(m.quotient, m.other, m.quotient);
    arithmetic::multiply(m.quotient, function_.scale, m.quotient);
    arithmetic::shift_down(m.quotient, -kFraction, m.other);
    bool has_more = arithmetic::divide(m.other, count);
    has_more = arithmetic::divide(m.other, function_.divisor) || has_more;
    const int exponent = 2 * arithmetic::kUnitExponent + 128 * cut - kFraction;
    return function_.function == kVarianceFunction ? rounding_.number(m.other, exponent, has_more)
                                                   : rounding_.root(m.other, exponent, has_more);
  }

  StateFunction function_;
  NumberRounding rounding_;
  Memory& memory_;
};

// Writes the values of `count` states that lie side by side; with kSettleFunction, which is of
// sums, brings their digits into [0, 2^32) instead. Memory: kFunctionWorkers of a block.
template <class Thread>
KORVEX_HD void round_states_by_grid(const Thread& thread, std::int64_t count, std::int64_t* states,
                                    const StateFunction& function, const ResultElements& out,
                                    FunctionMemory* block) {
  if (thread.lane() != 0) {
    return;
  }
  FunctionMemory& own = block[thread.warp()];
  const int words = arithmetic::state_words(function.kind());
  const std::int64_t stride = thread.blocks() * thread.warps();
  for (std::int64_t i = thread.block() * thread.warps() + thread.warp(); i < count; i += stride) {
    std::int64_t* state = states + i * words;
    if (function.function == kSettleFunction) {
      if (own.sum.load(state)) {
        own.sum.store(state);
      }
    } else {
      out.write(i, FunctionWorker(function, out.format, own).value(state));
    }
  }
}

}  // namespace korvex::kernels
