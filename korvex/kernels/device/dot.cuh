// SPDX-License-Identifier: Apache-2.0
// Kernels of the two dot products: by one thread in index order, and by all threads of a grid.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/products.h"
#include "korvex/kernels/device/async_copy.cuh"
#include "korvex/kernels/device/lanes.cuh"
#include "korvex/kernels/device/parallel_dot.h"
#include "korvex/kernels/device/staged_sum.cuh"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

constexpr int kPiecePairs = 1024;

struct StagedPairs {
  alignas(16) double x[kPiecePairs];
  alignas(16) double y[kPiecePairs];
};

__device__ __forceinline__ std::int64_t piece_pairs(std::int64_t rest) {
  return rest < kPiecePairs ? rest : kPiecePairs;
}

// Two groups of copies, empty where count <= 0.
__device__ __forceinline__ void start_copying_pairs(const double* x, const double* y,
                                                    std::int64_t count, StagedPairs& to) {
  start_copying(x, count, to.x);
  start_copying(y, count, to.y);
}

// Adds x[i] * y[i] for i = 0 to n - 1, by one thread: pieces of both arrays are copied to shared
// memory one piece ahead.
__device__ __forceinline__ void add_staged_products(const double* x, const double* y,
                                                    std::int64_t n, StagedPairs* pieces,
                                                    arithmetic::ExactProductSum& sum) {
  arithmetic::ChunkedSum<DeviceLanes, 1, arithmetic::Products> chunks(sum);
  start_copying_pairs(x, y, piece_pairs(n), pieces[0]);
  for (int slot = 0; n > 0; slot = 1 - slot) {
    const std::int64_t count = piece_pairs(n);
    x += count;
    y += count;
    n -= count;
    start_copying_pairs(x, y, piece_pairs(n), pieces[1 - slot]);
    wait_for_copies_before_the_latest<2>();
    chunks.add({pieces[slot].x, pieces[slot].y}, count);
  }
}

// Launches of tqx_dot_kernel never overlap: all are made on the null stream of the device. The
// loader knows it by this name and clears it before each.
extern "C" {
__device__ DotGridMemory dot_grid_memory;
}

// Memory of the block in every kernel that sums products over the grid.
__shared__ DotBlockMemory dot_block_memory;

}  // namespace korvex::kernels

// out[0] to out[3]: the sum of the products of x and y. One thread does it all; others leave at
// once.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kMostThreadsOfFunction)
    tqx_dot_seq_kernel(const double* x, const double* y, double* out, long long n) {
  using namespace korvex;
  using arithmetic::ExactProductSum;
  __shared__ kernels::StagedPairs pieces[2];
  alignas(ExactProductSum) __shared__ unsigned char sum_memory[sizeof(ExactProductSum)];
  if (!kernels::is_first_thread_of_grid()) {
    return;
  }
  ExactProductSum& sum = *new (sum_memory) ExactProductSum;
  kernels::add_staged_products(x, y, n, pieces, sum);
  sum.round<4>(out);
}

// out[0], out_err[0] and out_err2[0]: the first three limbs of the sum of the products of x and y.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentDotBlocks)
    tqx_dot_kernel(const double* x, const double* y, double* out, double* out_err, double* out_err2,
                   long long n) {
  using namespace korvex;
  kernels::dot_by_grid(kernels::DeviceThread(), x, y, out, out_err, out_err2, n,
                       kernels::dot_block_memory, &kernels::dot_grid_memory);
}
