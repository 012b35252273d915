// SPDX-License-Identifier: Apache-2.0
// Shells of the two sums for the host.
#include "korvex/arithmetic/exact/sum.h"

#include <cstdint>

#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

using arithmetic::ExactSum;
using arithmetic::HostLanes;

// Arguments: x, out, n.
void run_sum_seq(const Arguments& arguments) {
  arithmetic::sum_sequential<HostLanes>(arguments.array(0), arguments.array(1),
                                        arguments.integer(2));
}

// Arguments: x, out, out_err, n.
void run_sum(const Arguments& arguments) {
  const double* x = arguments.array(0);
  ExactSum sum;
  for_each_range<ExactSum>(
      arguments.integer(3), arguments.threads(),
      [x](std::int64_t begin, std::int64_t end, ExactSum& part) {
        arithmetic::add_range<HostLanes>(x + begin, end - begin, part);
      },
      [&sum](const ExactSum& part) { sum.add(part); });
  arithmetic::write_parallel_sum(sum, arguments.array(1), arguments.array(2));
}

}  // namespace korvex::host
