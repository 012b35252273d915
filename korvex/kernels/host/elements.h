// SPDX-License-Identifier: Apache-2.0
// One result for each element of an array, on host threads.
#pragma once

#include <cstdint>

#include "korvex/kernels/host/threads.h"

namespace korvex::host {

// out[i] = operation(x[i])
template <class Operation>
void for_each_element(const double* x, double* out, std::int64_t n, int threads,
                      const Operation& operation) {
  for_each_range(n, threads, [=](std::int64_t begin, std::int64_t end) {
    for (std::int64_t i = begin; i < end; ++i) {
      out[i] = operation(x[i]);
    }
  });
}

}  // namespace korvex::host
