// SPDX-License-Identifier: Apache-2.0
// Kernel of the matrix product: each thread takes elements of the product, each by one call.
#pragma once

#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

__device__ __forceinline__ std::int64_t thread_along(unsigned block, unsigned threads,
                                                     unsigned thread) {
  return std::int64_t{block} * threads + thread;
}

}  // namespace korvex::kernels

// c0, c1, c2: the limbs of a times b. A thread takes the element of its place, x along the columns,
// and further ones where the grid is smaller than the product.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kMostThreadsOfFunction)
    tqx_matmul_kernel(const double* a, const double* b, double* c0, double* c1, double* c2,
                      long long M, long long N, long long K) {
  using namespace korvex;
  const std::int64_t row_stride = std::int64_t{gridDim.y} * blockDim.y;
  const std::int64_t column_stride = std::int64_t{gridDim.x} * blockDim.x;
#pragma unroll 1
  for (std::int64_t i = kernels::thread_along(blockIdx.y, blockDim.y, threadIdx.y); i < M;
       i += row_stride) {
#pragma unroll 1
    for (std::int64_t j = kernels::thread_along(blockIdx.x, blockDim.x, threadIdx.x); j < N;
         j += column_stride) {
      double limbs[arithmetic::kElementLimbs];
      arithmetic::matrix_element(a + i * K, b + j, N, K, limbs);
      c0[i * N + j] = limbs[0];
      c1[i * N + j] = limbs[1];
      c2[i * N + j] = limbs[2];
    }
  }
}
