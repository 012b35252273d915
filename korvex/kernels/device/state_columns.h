// SPDX-License-Identifier: Apache-2.0
// Sums and means along dimensions by a thread for each output: for columns, which threads beside
// each other read side by side, and for short rows. No memory of the grid is needed.
//
// Phases, for 32 outputs of a warp: each lane adds its elements up in two doubles, by two two_sums
// an element. As long as the second has no error, the two are the exact sum. Where they are not,
// the whole warp takes that output once more, into digits in the memory of the block, which its
// first lane rounds.
#pragma once

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/exact/accumulator4.h"
#include "korvex/kernels/device/state_axes.h"
#include "korvex/kernels/device/state_functions.h"

namespace korvex::kernels {

// Memory of a block; its content at the start does not matter.
struct ColumnMemory {
  TeamMemory<arithmetic::ExactSum> team;
  SumMemory of_worker[kMaxWarps];
};

// A sum while two doubles hold it.
struct PairSum {
  double high = 0;
  double low = 0;
  bool is_exact = true;

  // An overflow leaves an infinity or a NaN, which is not below the limit.
  KORVEX_INLINE void add(double x) {
    const arithmetic::ValueAndError upper = arithmetic::two_sum(high, x);
    const arithmetic::ValueAndError lower = arithmetic::two_sum(low, upper.error);
    high = upper.value;
    low = lower.value;
    is_exact = is_exact && lower.error == 0 && arithmetic::absolute(high) < arithmetic::kLimbLimit;
  }
};

// Writes the sum or mean that a pair is to *result; false where that takes more. Of a mean the
// quotient q of the first double by the count has an exact rest r, so it is q + (r + second) /
// count. Where that rounds alike from both ends of what the rest may be, it is known.
KORVEX_INLINE bool value_of_pair(const PairSum& pair, const StateFunction& function, int format,
                                 double* result) {
  using namespace arithmetic;
  const ValueAndError sum = two_sum(pair.high, pair.low);  // exact
  if (!pair.is_exact || (function.function == kMeanFunction && function.elements == 0)) {
    return false;
  }
  if (function.function == kTotalFunction || sum.value == 0) {
    *result = add_rn(rounded_once(sum.value, sign_of(sum.error), format), 0.0);  // -0 to +0
    return true;
  }
  const double magnitude = absolute(sum.value);
  if (magnitude < 0x1p-900 || magnitude > 0x1p+1000 || function.elements >= std::int64_t{1} << 53) {
    return false;
  }
  const auto count = static_cast<double>(function.elements);         // exact
  const double quotient = div_rn(sum.value, count);                  // rounded
  const double rest = fma_rn(-quotient, count, sum.value);           // exact
  const double correction = div_rn(add_rn(rest, sum.error), count);  // three roundings
  const ValueAndError mean = two_sum(quotient, correction);          // exact
  const double size = add_rn(absolute(rest), absolute(sum.error));
  const double slack = mul_rn(div_rn(size, count), 0x1p-46);  // above the error 100 times
  const bool is_sure = add_rn(mean.value, add_rn(mean.error, slack)) == mean.value &&
                       add_rn(mean.value, sub_rn(mean.error, slack)) == mean.value &&
                       (absolute(mean.error) > slack || size == 0);
  *result = rounded_once(mean.value, sign_of(mean.error), format);
  return is_sure;
}

// The elements of one output, by one thread.
KORVEX_INLINE PairSum sum_of_output(const AxisPlan& plan, const AxisOperand& x,
                                    std::int64_t output) {
  const AxisElements elements = x.of_output(plan, output);
  const bool is_wide = elements.is_wide();
  const std::int64_t run = plan.run();
  const std::int64_t runs = run == 0 ? 0 : plan.elements() / run;
  PairSum sum;
  for (std::int64_t own_run = 0; own_run < runs; ++own_run) {
    const AxisElements of_run = elements.at(own_run, 0);
    const AxisElements low = of_run.low();
    for (std::int64_t i = 0; i < run; ++i) {
      sum.add(of_run[i]);
      if (is_wide) {
        sum.add(low[i]);
      }
    }
  }
  return sum;
}

// The exact value of one output, by the whole warp; it is in the first lane. Elements go bit by bit
// into digits, which have room for 2^31 of them.
template <class Thread>
KORVEX_COLD double value_by_warp(const Thread& thread, const AxisPlan& plan, const AxisOperand& x,
                                 std::int64_t output, const StateFunction& function, int format,
                                 ColumnMemory& block) {
  using Counting = CountingThread<Thread>;
  std::int64_t* digits = block.team.digits[thread.warp()];
  std::int64_t* specials = block.team.specials[thread.warp()];
  clear_warp(thread, block.team);
  const WarpSum<Counting> sum(Counting(thread, specials), digits, block.team.special);
  const StateElements first =
      StateElements(x.data, 0, x.format).moved(plan.offset_of_output(x.number, output));
  for (std::int64_t i = thread.lane(); i < plan.elements(); i += kLanes) {
    const StateElements element = first.moved(plan.offset_of_element(x.number, i));
    sum.add_element(element[0]);
    if (element.is_wide()) {
      sum.add_element(element.low()[0]);
    }
  }
  thread.sync_warp();
  double value = 0;
  if (thread.lane() == 0) {
    SumMemory& own = block.of_worker[thread.warp()];
    own.sum.clear();
    for (int i = 0; i < kSumDigits; ++i) {
      own.sum.add_digit(i, digits[i]);
    }
    value = FunctionWorker(function, format, own)
                .value_of_memory({specials[kPlusInfinities], specials[kMinusInfinities],
                                  specials[kNans], function.elements});
  }
  thread.sync_warp();
  return value;
}

// Outputs 0 to `outputs` - 1 of a plan with one part, which the kernel's blocks do not share.
// Preconditions: as of add_axes_by_grid; the function is a total or a mean.
template <class Thread>
KORVEX_HD void sum_columns_by_grid(const Thread& thread, std::int64_t outputs, const AxisPlan& plan,
                                   const AxisOperand& x, const StateFunction& function,
                                   const ResultElements& out, ColumnMemory& block) {
  const std::int64_t stride = thread.blocks() * thread.warps() * kLanes;
  for (std::int64_t first = (thread.block() * thread.warps() + thread.warp()) * kLanes;
       first < outputs; first += stride) {
    const std::int64_t own = first + thread.lane();
    unsigned waiting = 0;  // the lane's number from 1 on, where two doubles do not do
    if (own < outputs) {
      double value;
      if (value_of_pair(sum_of_output(plan, x, own), function, out.format, &value)) {
        out.write(own, value);
      } else {
        waiting = static_cast<unsigned>(thread.lane()) + 1;
      }
    }
    for (unsigned turn = thread.max(waiting); turn != 0; turn = thread.max(waiting)) {
      const std::int64_t output = first + turn - 1;
      const double value = value_by_warp(thread, plan, x, output, function, out.format, block);
      if (thread.lane() == 0) {
        out.write(output, value);
      }
      if (turn == static_cast<unsigned>(thread.lane()) + 1) {
        waiting = 0;
      }
    }
  }
}

}  // namespace korvex::kernels
