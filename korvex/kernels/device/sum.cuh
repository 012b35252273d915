// SPDX-License-Identifier: Apache-2.0
// Kernels of the two sums: by one thread in index order, and by all threads of a grid.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/kernels/device/parallel_sum.h"
#include "korvex/kernels/device/staged_sum.cuh"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Launches of tqx_sum_kernel never overlap: all are made on the null stream of the device. The
// loader knows it by this name and clears it before each.
extern "C" {
__device__ GridMemory sum_grid_memory;
}

// Memory of the block in every kernel that sums over the grid.
__shared__ BlockMemory sum_block_memory;

}  // namespace korvex::kernels

// out[0] to out[3]: the sum of x[0] to x[n - 1]. One thread does it all; others leave at once.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kMostThreadsOfFunction)
    tqx_sum_seq_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  alignas(16) __shared__ double pieces[2][kernels::kPiece];
  alignas(arithmetic::ExactSum) __shared__ unsigned char sum_memory[sizeof(arithmetic::ExactSum)];
  if (!kernels::is_first_thread_of_grid()) {
    return;
  }
  arithmetic::ExactSum& sum = *new (sum_memory) arithmetic::ExactSum;
  kernels::add_staged(x, n, pieces, sum);
  sum.round<4>(out);
}

// out[0] and out_err[0]: the first two limbs of the sum of x[0] to x[n - 1].
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentSumBlocks)
    tqx_sum_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  kernels::sum_by_grid(kernels::DeviceThread(), x, out, out_err, n, kernels::sum_block_memory,
                       &kernels::sum_grid_memory);
}
