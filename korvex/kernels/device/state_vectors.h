// SPDX-License-Identifier: Apache-2.0
// Running sums of many vectors by a thread for each, every one rounded once.
//
// The vectors and their results are operands of a plan (state_axes.h). A thread has memory that the
// caller brings, a RunningSegment, as state_segments.h has it for a segment of one vector.
#pragma once

#include "korvex/kernels/device/state_axes.h"
#include "korvex/kernels/device/state_segments.h"

namespace korvex::kernels {

// Threads that work: as many as there is memory for.
struct VectorMemory {
  std::int64_t threads;
  void* segments;
};

// Where results go: the second operand of the plan.
struct RunningResults {
  void* first;
  int format;
};

// Writes the sums of vectors 0 to `vectors` - 1. Preconditions: the reduced dimension of the plan
// is one, and the results are its second operand.
template <class Thread>
KORVEX_HD void write_running_axes_by_grid(const Thread& thread, std::int64_t vectors,
                                          const VectorMemory& memory, const AxisPlan& plan,
                                          const AxisOperand& x, const RunningResults& out) {
  const std::int64_t all = thread.blocks() * thread.threads();
  const std::int64_t stride = memory.threads < all ? memory.threads : all;
  const std::int64_t number = thread.index() * thread.blocks() + thread.block();
  if (number >= stride) {
    return;
  }
  RunningSegment& own = static_cast<RunningSegment*>(memory.segments)[number];
  for (std::int64_t vector = number; vector < vectors; vector += stride) {
    auto& running = *new (&own.running) arithmetic::PrefixSum;
    const StateElements elements(
        static_cast<const char*>(x.data) + plan.offset_of_output(x.number, vector),
        plan.stride_of_run(x.number), x.format);
    char* result = static_cast<char*>(out.first) + plan.offset_of_output(1, vector);
    for (std::int64_t i = 0; i < plan.elements(); ++i) {
      const StateElements element = elements + i;
      arithmetic::ValueAndError limbs = running.next(element[0]);
      if (element.is_wide()) {
        limbs = running.next(element.low()[0]);
      }
      write_result(rounded_running_sum(own, limbs, own.sum, out.format), out.format,
                   result + i * plan.stride_of_run(1));
    }
  }
}

}  // namespace korvex::kernels
