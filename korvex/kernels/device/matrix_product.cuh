// SPDX-License-Identifier: Apache-2.0
// Kernel of the matrix product: a block takes tiles of the product, a thread one element of each.
//
// Phases of a tile: the block's threads share the exponents of its rows and columns among them,
// once for all elements; each thread takes its element through slices; the few elements that slices
// do not settle take turns with long sums in the memory of the block, kLongSums at a time. A thread
// would else keep a long sum of its own on its stack, which the driver reserves for every thread
// that the device can hold.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

constexpr int kLongSums = 8;

// One place for each thread: a row's elements are seen by the threads of that row of the block, a
// column's by those of that column.
struct MatrixMemory {
  arithmetic::FactorRangeOf rows[kMostThreadsOfFunction];
  arithmetic::FactorRangeOf columns[kMostThreadsOfFunction];
  unsigned any_waits;  // not 0: an element of the tile is not written yet
  alignas(arithmetic::ExactProductSum) unsigned char sums[kLongSums]
                                                         [sizeof(arithmetic::ExactProductSum)];
};

struct Matrices {
  const double* a;
  const double* b;
  double* limbs[arithmetic::kElementLimbs];
  std::int64_t rows;     // of a and of the product
  std::int64_t columns;  // of b and of the product
  std::int64_t depth;    // columns of a, rows of b
};

class MatrixTile {
 public:
  // The element of this thread; beyond the product's ends it has none.
  __device__ __forceinline__ MatrixTile(const Matrices& matrices, std::int64_t first_row,
                                        std::int64_t first_column, MatrixMemory& block)
      : matrices_(matrices),
        block_(block),
        index_(static_cast<int>(threadIdx.y * blockDim.x + threadIdx.x)),
        row_(first_row + threadIdx.y),
        column_(first_column + threadIdx.x) {}

  // All threads of the block together.
  __device__ __forceinline__ void write() {
    note_ranges();
    __syncthreads();
    bool waits = false;
    if (has_element()) {
      double limbs[arithmetic::kElementLimbs];
      waits = !element_.try_slices(terms(), plan(), limbs);
      if (waits) {
        atomicOr(&block_.any_waits, 1U);
      } else {
        store(limbs);
      }
    }
    __syncthreads();
    if (block_.any_waits != 0) {
      take_turns(waits);
    }
  }

 private:
  __device__ __forceinline__ bool has_element() const {
    return row_ < matrices_.rows && column_ < matrices_.columns;
  }
  __device__ __forceinline__ arithmetic::ElementTerms terms() const {
    return {matrices_.a + row_ * matrices_.depth, matrices_.b + column_, matrices_.columns,
            matrices_.depth};
  }

  // Each thread every blockDim.x-th element of its row, and every blockDim.y-th of its column.
  __device__ __forceinline__ void note_ranges() {
    arithmetic::FactorRangeOf row;
    if (row_ < matrices_.rows) {
#pragma unroll 1
      for (std::int64_t k = threadIdx.x; k < matrices_.depth; k += blockDim.x) {
        row.note(matrices_.a[row_ * matrices_.depth + k]);
      }
    }
    block_.rows[index_] = row;
    arithmetic::FactorRangeOf column;
    if (column_ < matrices_.columns) {
#pragma unroll 1
      for (std::int64_t k = threadIdx.y; k < matrices_.depth; k += blockDim.y) {
        column.note(matrices_.b[k * matrices_.columns + column_]);
      }
    }
    block_.columns[index_] = column;
    if (index_ == 0) {
      block_.any_waits = 0;
    }
  }

  __device__ __forceinline__ arithmetic::ElementPlan plan() const {
    arithmetic::FactorRangeOf row;
#pragma unroll 1
    for (unsigned x = 0; x < blockDim.x; ++x) {
      row.add(block_.rows[threadIdx.y * blockDim.x + x]);
    }
    arithmetic::FactorRangeOf column;
#pragma unroll 1
    for (unsigned y = 0; y < blockDim.y; ++y) {
      column.add(block_.columns[y * blockDim.x + threadIdx.x]);
    }
    return arithmetic::ElementPlan::of(row.range(), column.range());
  }

  __device__ __noinline__ void take_turns(bool waits) {
    const int threads = static_cast<int>(blockDim.x * blockDim.y);
    for (int turn = 0; turn * kLongSums < threads; ++turn) {
      if (waits && index_ / kLongSums == turn) {
        auto& sum = *new (block_.sums[index_ % kLongSums]) arithmetic::ExactProductSum;
        double limbs[arithmetic::kElementLimbs];
        element_.finish(terms(), sum, limbs);
        store(limbs);
      }
      __syncthreads();
    }
  }

  __device__ __forceinline__ void store(const double* limbs) const {
    for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
      matrices_.limbs[limb][row_ * matrices_.columns + column_] = limbs[limb];
    }
  }

  const Matrices& matrices_;
  MatrixMemory& block_;
  int index_;
  std::int64_t row_;
  std::int64_t column_;
  arithmetic::ElementOfSlices element_;
};

}  // namespace korvex::kernels

// c0, c1, c2: the limbs of a times b. A block takes the tile of its place, x along the columns, and
// further ones where the grid is smaller than the product.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kMostThreadsOfFunction)
    tqx_matmul_kernel(const double* a, const double* b, double* c0, double* c1, double* c2,
                      long long M, long long N, long long K) {
  using namespace korvex;
  alignas(16) __shared__ unsigned char memory[sizeof(kernels::MatrixMemory)];
  auto& block = *reinterpret_cast<kernels::MatrixMemory*>(memory);
  const kernels::Matrices matrices{a, b, {c0, c1, c2}, M, N, K};
  const std::int64_t row_stride = std::int64_t{gridDim.y} * blockDim.y;
  const std::int64_t column_stride = std::int64_t{gridDim.x} * blockDim.x;
#pragma unroll 1
  for (std::int64_t i = std::int64_t{blockIdx.y} * blockDim.y; i < M; i += row_stride) {
#pragma unroll 1
    for (std::int64_t j = std::int64_t{blockIdx.x} * blockDim.x; j < N; j += column_stride) {
      kernels::MatrixTile(matrices, i, j, block).write();
      __syncthreads();  // before the next tile takes the block's memory
    }
  }
}
