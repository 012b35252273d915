// SPDX-License-Identifier: Apache-2.0
// Kernels of two operands, a value and an error per element, on host threads.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/exact/pairs.h"
#include "korvex/kernels/host/slices.h"

namespace korvex::host {

// Arguments: x, y, out, out_err, n. Elements are independent, so the slices do not show.
template <arithmetic::ValueAndError (*Operation)(double, double), class Arguments>
void run_pairs(const Arguments& arguments) {
  struct Nothing {};
  const double* x = arguments.array(0);
  const double* y = arguments.array(1);
  double* out = arguments.array(2);
  double* out_err = arguments.array(3);
  for_each_slice<Nothing>(
      arguments.integer(4), arguments.threads(),
      [=](std::int64_t begin, std::int64_t end, Nothing&) {
        for (std::int64_t i = begin; i < end; ++i) {
          const arithmetic::ValueAndError pair = Operation(x[i], y[i]);
          out[i] = pair.value;
          out_err[i] = pair.error;
        }
      },
      [](const Nothing&) {});
}

}  // namespace korvex::host
