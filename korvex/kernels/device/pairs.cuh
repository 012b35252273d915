// SPDX-License-Identifier: Apache-2.0
// Kernels of two operands, a value and an error per element: one thread an element, or several
// elements a thread where the grid is too small for that.
#pragma once

#include "korvex/arithmetic/exact/pairs.h"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Not unrolled: with a thread for each element the loop runs once.
template <arithmetic::ValueAndError (*Operation)(double, double)>
__device__ __forceinline__ void pairs_by_grid(const double* x, const double* y, double* out,
                                              double* out_err, std::int64_t n) {
  const DeviceThread thread;
  const std::int64_t stride = thread.blocks() * thread.threads();
#pragma unroll 1
  for (std::int64_t i = thread.block() * thread.threads() + thread.index(); i < n; i += stride) {
    const arithmetic::ValueAndError pair = Operation(x[i], y[i]);
    out[i] = pair.value;
    out_err[i] = pair.error;
  }
}

}  // namespace korvex::kernels

// out[i] and out_err[i]: the sum of x[i] and y[i], and its error.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_add_kernel(const double* x, const double* y, double* out, double* out_err, long long n) {
  korvex::kernels::pairs_by_grid<korvex::arithmetic::add_pair>(x, y, out, out_err, n);
}

// out[i] and out_err[i]: x[i] less y[i], and its error.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_sub_kernel(const double* x, const double* y, double* out, double* out_err, long long n) {
  korvex::kernels::pairs_by_grid<korvex::arithmetic::subtract_pair>(x, y, out, out_err, n);
}

// out[i] and out_err[i]: the product of x[i] and y[i], and its error.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_mul_kernel(const double* x, const double* y, double* out, double* out_err, long long n) {
  korvex::kernels::pairs_by_grid<korvex::arithmetic::multiply_pair>(x, y, out, out_err, n);
}

// out[i] and out_err[i]: x[i] divided by y[i], and its error.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_div_kernel(const double* x, const double* y, double* out, double* out_err, long long n) {
  korvex::kernels::pairs_by_grid<korvex::arithmetic::divide_pair>(x, y, out, out_err, n);
}
