// SPDX-License-Identifier: Apache-2.0
// The product of all elements over the whole device, for what one block does otherwise.
//
// Phases: each thread multiplies every so manyth element into a part of its own, in the memory of
// the block; the parts of a block are joined two by two, and the first thread hands in the result;
// the block that arrives last joins those of all blocks, and its first thread rounds. Which
// elements were multiplied first may decide whether the rounding test fails, but not a result that
// it lets pass. Where it fails one thread takes the product once more, in the order of the elements
// and in many more bits, as the kernel does that this one stands for.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/kernels/device/parallel_sum.h"
#include "korvex/kernels/device/reductions.cuh"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Blocks beyond these do no work.
constexpr std::int64_t kMostProductBlocks = 1024;

struct alignas(arithmetic::FastProduct) ProductMemory {
  unsigned char bytes[sizeof(arithmetic::FastProduct)];

  __device__ __forceinline__ arithmetic::FastProduct& value() {
    return *reinterpret_cast<arithmetic::FastProduct*>(bytes);
  }
};

// What the blocks hand in.
__device__ ProductMemory products_of_blocks[kMostProductBlocks];
// How many have; the loader knows it by this name and clears it before each launch.
extern "C" {
__device__ std::int64_t prod_grid_memory;
}

// The parts of all threads of a block become one product, in the first of them.
__device__ __noinline__ void join_products(const DeviceThread& thread, ProductMemory* parts) {
#pragma unroll 1
  for (int distance = 1; distance < thread.threads(); distance *= 2) {
    thread.sync_block();
    const int other = thread.index() + distance;
    if (thread.index() % (2 * distance) == 0 && other < thread.threads()) {
      parts[thread.index()].value().add(parts[other].value());
    }
  }
  thread.sync_block();
}

// Of all elements that this block takes.
__device__ __forceinline__ void multiply_elements(const DeviceThread& thread, const double* x,
                                                  std::int64_t n, std::int64_t blocks,
                                                  ProductMemory* parts) {
  auto& own = *new (parts[thread.index()].bytes) arithmetic::FastProduct();
  const std::int64_t stride = blocks * thread.threads();
#pragma unroll 1
  for (std::int64_t i = thread.block() * thread.threads() + thread.index(); i < n; i += stride) {
    own.multiply(x[i]);
  }
  join_products(thread, parts);
}

// Of all that the blocks have handed in.
__device__ __forceinline__ void multiply_blocks(const DeviceThread& thread, std::int64_t blocks,
                                                ProductMemory* parts) {
  auto& own = *new (parts[thread.index()].bytes) arithmetic::FastProduct();
#pragma unroll 1
  for (std::int64_t i = thread.index(); i < blocks; i += thread.threads()) {
    own.add(products_of_blocks[i].value());
  }
  join_products(thread, parts);
}

}  // namespace korvex::kernels

// For tqx_prod_kernel. out[0], out_err[0]: the product of x, and what is left of it, each correctly
// rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    tqx_prod_device_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  __shared__ kernels::ProductMemory parts[kernels::kGridBlock];
  __shared__ bool is_last;
  const kernels::DeviceThread thread;
  const std::int64_t blocks =
      thread.blocks() < kernels::kMostProductBlocks ? thread.blocks() : kernels::kMostProductBlocks;
  if (thread.block() < blocks) {
    kernels::multiply_elements(thread, x, n, blocks, parts);
    if (thread.index() == 0) {
      kernels::products_of_blocks[thread.block()] = parts[0];
    }
  }
  if (!kernels::arrives_last(thread, is_last, kernels::prod_grid_memory)) {
    return;
  }
  kernels::multiply_blocks(thread, blocks, parts);
  if (thread.index() == 0) {
    thread.take_from_grid(kernels::prod_grid_memory);
    auto& accurate = *new (kernels::accurate_product_memory) arithmetic::AccurateProductWorkspace;
    arithmetic::write_product(parts[0].value(), x, n, accurate, out, out_err);
  }
}
