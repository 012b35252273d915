// SPDX-License-Identifier: Apache-2.0
// Kernel of the matrix product: a block takes tiles of the product, a thread one element of each.
#pragma once

#include "korvex/kernels/device/matrix_tile.h"
#include "korvex/kernels/device/thread.cuh"

// c0, c1, c2: the limbs of a times b. A block takes the tile of its place, x along the columns, and
// further ones where the grid is smaller than the product.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kMostThreadsOfFunction)
    tqx_matmul_kernel(const double* a, const double* b, double* c0, double* c1, double* c2,
                      long long M, long long N, long long K) {
  using namespace korvex;
  using Tile = kernels::MatrixTile<kernels::DeviceThread, kernels::LimbResults>;
  alignas(16) __shared__ unsigned char memory[sizeof(Tile::Memory)];
  auto& block = *reinterpret_cast<Tile::Memory*>(memory);
  const kernels::DeviceThread thread;
  const kernels::TilePlace place{static_cast<int>(threadIdx.x), static_cast<int>(threadIdx.y),
                                 static_cast<int>(blockDim.x), static_cast<int>(blockDim.y)};
  const kernels::Factors factors{a, b, M, N, K};
  const kernels::LimbResults results{{c0, c1, c2}};
  const std::int64_t row_stride = std::int64_t{gridDim.y} * blockDim.y;
  const std::int64_t column_stride = std::int64_t{gridDim.x} * blockDim.x;
#pragma unroll 1
  for (std::int64_t i = std::int64_t{blockIdx.y} * blockDim.y; i < M; i += row_stride) {
#pragma unroll 1
    for (std::int64_t j = std::int64_t{blockIdx.x} * blockDim.x; j < N; j += column_stride) {
      Tile(thread, place, factors, results, i, j, block).write();
      thread.sync_block();  // before the next tile takes the block's memory
    }
  }
}
