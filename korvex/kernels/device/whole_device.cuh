// SPDX-License-Identifier: Apache-2.0
// Kernels over the whole device for what one thread or one block does otherwise: sum and dot
// product with four limbs, variance, norm, RMS norm.
//
// Phases: a sum over all threads of the grid, exact until the last block holds it (parallel_sum.h,
// parallel_dot.h); there one thread rounds, by the code of the kernel that this one stands for.
// Where all threads need what that thread has found, or two sums are needed, they come from two
// launches: what the first leaves in static memory, the second finds there. So no block waits for
// another one. The loader makes the launches of a row of whole_device.h together, and nothing else
// of these kernels in between.
#pragma once

#include <new>

#include "korvex/arithmetic/elementary/rms_norm.h"
#include "korvex/kernels/device/dot.cuh"
#include "korvex/kernels/device/reductions.cuh"
#include "korvex/kernels/device/sum.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// The sum, or the sum of products, in one thread of the grid; a null pointer in the others. Several
// kernels share this code.
__device__ __noinline__ arithmetic::ExactSum* sum_of_grid(const double* x, std::int64_t n) {
  return sum_over_grid(DeviceThread(), x, n, sum_block_memory, &sum_grid_memory);
}
__device__ __noinline__ arithmetic::ExactProductSum* products_of_grid(const double* x,
                                                                      const double* y,
                                                                      std::int64_t n) {
  return dot_over_grid(DeviceThread(), x, y, n, dot_block_memory, &dot_grid_memory);
}

// The Moments between the two launches of a variance: static memory is not constructed.
alignas(arithmetic::Moments) __device__ unsigned char moments_memory[sizeof(arithmetic::Moments)];

// What the two launches of an RMS norm share.
struct RootMemory {
  arithmetic::ProductAccumulator squares;
  arithmetic::InverseRoot root;
};
alignas(RootMemory) __device__ unsigned char root_memory[sizeof(RootMemory)];

__device__ __forceinline__ RootMemory& shared_root() {
  return *reinterpret_cast<RootMemory*>(root_memory);
}

// By one thread.
__device__ __noinline__ void find_root_of(const arithmetic::ExactProductSum& sum, std::int64_t n,
                                          double eps) {
  RootMemory& memory = shared_root();
  memory.squares.clear();
  sum.add_to(memory.squares);
  memory.root =
      arithmetic::inverse_root(memory.squares, sum.is_decided(), !sum.is_sum_of_finite(), n, eps);
}

}  // namespace korvex::kernels

// For tqx_sum_seq_kernel. out[0] to out[3]: the sum of x[0] to x[n - 1].
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentSumBlocks)
    tqx_sum_device_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  arithmetic::ExactSum* sum = kernels::sum_of_grid(x, n);
  if (sum != nullptr) {
    sum->round<4>(out);
  }
}

// For tqx_dot_seq_kernel. out[0] to out[3]: the sum of the products of x and y.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentDotBlocks)
    tqx_dot_device_kernel(const double* x, const double* y, double* out, long long n) {
  using namespace korvex;
  arithmetic::ExactProductSum* sum = kernels::products_of_grid(x, y, n);
  if (sum != nullptr) {
    sum->round<4>(out);
  }
}

// For tqx_norm_kernel. out[0]: the Euclidean norm of x, correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentDotBlocks)
    tqx_norm_device_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  arithmetic::ExactProductSum* squares = kernels::products_of_grid(x, x, n);
  if (squares != nullptr) {
    arithmetic::write_norm(*squares, kernels::reduction_workspace.norm, out);
  }
}

// For tqx_var_kernel, the first of two: the sum of x stays in static memory.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentSumBlocks)
    tqx_var_device_sum_kernel(const double* x, double* /*out_mean*/, double* /*out_var*/,
                              long long n) {
  using namespace korvex;
  const arithmetic::ExactSum* sum = kernels::sum_of_grid(x, n);
  if (sum != nullptr) {
    auto& moments = *new (kernels::moments_memory) arithmetic::Moments;
    moments.sum.add(*sum);
  }
}

// The second: the sum of squares; then out_mean[0], out_var[0], correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentDotBlocks)
    tqx_var_device_kernel(const double* x, double* out_mean, double* out_var, long long n) {
  using namespace korvex;
  const arithmetic::ExactProductSum* squares = kernels::products_of_grid(x, x, n);
  if (squares != nullptr) {
    auto& moments = *reinterpret_cast<arithmetic::Moments*>(kernels::moments_memory);
    moments.squares.add(*squares);
    arithmetic::write_variance(moments, n, kernels::reduction_workspace.variance, out_mean,
                               out_var);
  }
}

// For tqx_rms_norm_kernel, the first of two: the root of the mean square stays in static memory.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentDotBlocks)
    tqx_rms_norm_device_root_kernel(const double* x, double* /*out*/, long long n, double eps) {
  using namespace korvex;
  const arithmetic::ExactProductSum* squares = kernels::products_of_grid(x, x, n);
  if (squares != nullptr && n > 0) {
    kernels::find_root_of(*squares, n, eps);
  }
}

// The second. out[i]: x[i] / sqrt(mean of all x[j]^2 + eps), correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    tqx_rms_norm_device_kernel(const double* x, double* out, long long n, double /*eps*/) {
  using namespace korvex;
  const kernels::DeviceThread thread;
  const arithmetic::InverseRoot& root = kernels::shared_root().root;
  const std::int64_t stride = thread.blocks() * thread.threads();
#pragma unroll 1
  for (std::int64_t i = thread.block() * thread.threads() + thread.index(); i < n; i += stride) {
    out[i] = arithmetic::normalised(x[i], root);
  }
}
