// SPDX-License-Identifier: Apache-2.0
// The bodies of the two sum kernels, for the device and for the host.
//
// Both outputs are canonical limbs of the exact sum S: four of them from one thread in index order,
// the first two from the parallel kernel, whose partial sums are exact and so may be joined in any
// order. Below overflow the two are the leading two of the four, bit for bit.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/arithmetic/exact/exact_sum.h"

namespace korvex::arithmetic {

// Chains of dependent additions run side by side, to hide the latency of one.
constexpr int kSumStreams = 2;

// Adds x[0] to x[n - 1] to the sum. Precondition: x holds n elements; n <= 0 adds nothing.
template <class Lanes>
KORVEX_HD void add_range(const double* x, std::int64_t n, ExactSum& sum) {
  ChunkedSum<Lanes, kSumStreams>(sum).add({x}, n);
}

// out[0] to out[3]: the sum of all elements, whatever out held before.
template <class Lanes>
KORVEX_HD void sum_sequential(const double* x, double* out, std::int64_t n) {
  ExactSum sum;
  add_range<Lanes>(x, n, sum);
  sum.round<4>(out);
}

// The last step of the parallel sum: out[0] is the sum correctly rounded, out_err[0] what is left.
KORVEX_HD inline void write_parallel_sum(ExactSum& sum, double* out, double* out_err) {
  double limbs[2];
  sum.round<2>(limbs);
  out[0] = limbs[0];
  out_err[0] = limbs[1];
}

}  // namespace korvex::arithmetic
