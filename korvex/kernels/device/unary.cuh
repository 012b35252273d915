// SPDX-License-Identifier: Apache-2.0
// Kernels of one operand and one result per element: one thread an element, or several elements a
// thread where the grid is too small for that. The last tries of sigmoid and tanh have numbers of
// 17 words, so a block has them once, 544 bytes, and its threads take turns.
#pragma once

#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic_wide.h"
#include "korvex/arithmetic/elementary/unary.h"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// out[i] = operation(x[i]). Not unrolled: with a thread for each element the loop runs once.
template <class Operation>
__device__ __forceinline__ void map_by_grid(const double* x, double* out, std::int64_t n,
                                            const Operation& operation) {
  const DeviceThread thread;
  const std::int64_t stride = thread.blocks() * thread.threads();
#pragma unroll 1
  for (std::int64_t i = thread.block() * thread.threads() + thread.index(); i < n; i += stride) {
    out[i] = operation(x[i]);
  }
}

// out[i] for a function whose last try works on memory of the block. A thread stops at an element
// that the first tries leave open; when all threads have stopped or are done, those with such an
// element take turns, and all go on. Whole blocks at a time, of any size.
template <arithmetic::Rounded (*First)(double), double (*Last)(double, arithmetic::LastLogistic&)>
__device__ __forceinline__ void map_in_tries(const double* x, double* out, std::int64_t n,
                                             arithmetic::LastLogistic& memory) {
  const DeviceThread thread;
  const std::int64_t stride = thread.blocks() * thread.threads();
  std::int64_t i = thread.block() * thread.threads() + thread.index();
  for (;;) {
#pragma unroll 1
    for (; i < n; i += stride) {
      const arithmetic::Rounded tried = First(x[i]);
      if (!tried.is_decided) {
        break;
      }
      out[i] = tried.value;
    }
    if (!thread.any_of_block(i < n)) {
      return;
    }
#pragma unroll 1
    for (int turn = 0; turn < thread.threads(); ++turn) {
      if (turn == thread.index() && i < n) {
        out[i] = Last(x[i], memory);
        i += stride;
      }
      thread.sync_block();
    }
  }
}

template <double (*Function)(double)>
struct Unary {
  __device__ __forceinline__ double operator()(double x) const { return Function(x); }
};

struct LeakyRelu {
  double slope;
  __device__ __forceinline__ double operator()(double x) const {
    return arithmetic::leaky_relu(x, slope);
  }
};

}  // namespace korvex::kernels

// out[i]: max(x[i], 0).
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_relu_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::relu>());
}

// out[i]: -x[i].
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_neg_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::negated>());
}

// out[i]: exp(x[i]), correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_exp_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::exponential>());
}

// out[i]: log(x[i]), correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock,
                                             korvex::kernels::kResidentElementaryBlocks)
    tqx_log_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::logarithm>());
}

// out[i]: the square root of x[i].
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_sqrt_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  kernels::map_by_grid(x, out, n, kernels::Unary<arithmetic::square_root>());
}

// out[i]: 1 / (1 + exp(-x[i])), correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock,
                                             korvex::kernels::kResidentElementaryBlocks)
    tqx_sigmoid_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  __shared__ arithmetic::LastLogistic memory;
  kernels::map_in_tries<arithmetic::first_sigmoid, arithmetic::last_sigmoid>(x, out, n, memory);
}

// out[i]: tanh(x[i]), correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock,
                                             korvex::kernels::kResidentElementaryBlocks)
    tqx_tanh_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  __shared__ arithmetic::LastLogistic memory;
  kernels::map_in_tries<arithmetic::first_tanh, arithmetic::last_tanh>(x, out, n, memory);
}

// out[i]: x[i] where it is positive, else negative_slope * x[i].
extern "C" __global__ void __launch_bounds__(korvex::kernels::kElementBlock)
    tqx_leaky_relu_kernel(const double* x, double negative_slope, double* out, long long n) {
  using namespace korvex;
  kernels::map_by_grid(x, out, n, kernels::LeakyRelu{negative_slope});
}
