// SPDX-License-Identifier: Apache-2.0
// The shared bodies compiled for the device; check_device_ptx.py reads what came out.
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/exact/sum.h"

// One thread sums in index order; the others of a larger launch leave at once.
extern "C" __global__ void korvex_check_sum_seq(const double* x, double* out, long long n) {
  const bool is_first = blockIdx.x == 0 && blockIdx.y == 0 && blockIdx.z == 0 && threadIdx.x == 0 &&
                        threadIdx.y == 0 && threadIdx.z == 0;
  if (is_first) {
    korvex::arithmetic::sum_sequential<korvex::arithmetic::ScalarLanes>(x, out, n);
  }
}

// Holds exactly one fused multiply-add, so that the check is seen to find one.
extern "C" __global__ void korvex_check_two_product(const double* x, double* out) {
  const auto product = korvex::arithmetic::two_product(x[0], x[1]);
  out[0] = product.value;
  out[1] = product.error;
}

// A product and a sum that the compiler would fuse if it were allowed to.
extern "C" __global__ void korvex_check_contraction(const double* x, double* out) {
  out[0] = x[0] * x[1] + x[2];
}
