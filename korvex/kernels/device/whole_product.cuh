// SPDX-License-Identifier: Apache-2.0
// The product of all elements over the whole device, for what one block does otherwise.
//
// Which elements were multiplied first may decide whether the rounding test fails, but not a result
// that it lets pass. Where it fails one thread takes the product once more, in the order of the
// elements and in many more bits, as the kernel does that this one stands for.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/kernels/device/grid_parts.cuh"
#include "korvex/kernels/device/reductions.cuh"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// How many blocks have handed in their product; the loader knows it by this name and clears it
// before each launch.
extern "C" {
__device__ std::int64_t prod_grid_memory;
}

}  // namespace korvex::kernels

// For tqx_prod_kernel. out[0], out_err[0]: the product of x, and what is left of it, each correctly
// rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    tqx_prod_device_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  using arithmetic::FastProduct;
  __shared__ kernels::MemoryOf<FastProduct> parts[kernels::kGridBlock];
  __shared__ bool is_last;
  const kernels::DeviceThread thread;
  const FastProduct* product =
      kernels::join_over_grid(thread, parts, is_last, kernels::prod_grid_memory,
                              [=](std::int64_t first, std::int64_t stride, FastProduct& part) {
#pragma unroll 1
                                for (std::int64_t i = first; i < n; i += stride) {
                                  part.multiply(x[i]);
                                }
                              });
  if (product != nullptr && thread.index() == 0) {
    auto& accurate = *new (kernels::accurate_product_memory) arithmetic::AccurateProductWorkspace;
    arithmetic::write_product(*product, x, n, accurate, out, out_err);
  }
}
