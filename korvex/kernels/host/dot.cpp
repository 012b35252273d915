// SPDX-License-Identifier: Apache-2.0
// Shells of the two dot products for the host.
#include "korvex/arithmetic/exact/dot.h"

#include <cstdint>

#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

using arithmetic::ExactProductSum;
using arithmetic::HostLanes;

// Arguments: x, y, out, n.
void run_dot_seq(const Arguments& arguments) {
  arithmetic::dot_sequential<HostLanes>(arguments.array(0), arguments.array(1), arguments.array(2),
                                        arguments.integer(3));
}

// Arguments: x, y, out, out_err, out_err2, n.
void run_dot(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const double* y = arguments.array(1);
  ExactProductSum sum;
  for_each_range<ExactProductSum>(
      arguments.integer(5), arguments.threads(),
      [x, y](std::int64_t begin, std::int64_t end, ExactProductSum& part) {
        arithmetic::add_products<HostLanes>(x + begin, y + begin, end - begin, part);
      },
      [&sum](const ExactProductSum& part) { sum.add(part); });
  arithmetic::write_parallel_dot(sum, arguments.array(2), arguments.array(3), arguments.array(4));
}

}  // namespace korvex::host
