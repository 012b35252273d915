// SPDX-License-Identifier: Apache-2.0
// The kernels of exact states for a GPU, in the order of korvex/kernels/states.h.
//
// As those of kernels.cu they are thin shells, and run on any grid of at least one block; blocks
// are whole warps. They keep nothing between launches: what they add, they add to the state.
#include "korvex/kernels/device/state_sums.h"
#include "korvex/kernels/device/thread.cuh"

namespace korvex::kernels {

__device__ __forceinline__ StateElements elements(const void* first, long long byte_stride,
                                                  long long format) {
  return {first, byte_stride, static_cast<int>(format)};
}
__device__ __forceinline__ arithmetic::StateKind state_kind(long long kind) {
  return static_cast<arithmetic::StateKind>(kind);
}

}  // namespace korvex::kernels

// Adds n elements to the digits of a sum, or takes them away.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_add_elements(long long n, const void* x, long long x_stride, long long x_format,
                        long long sign, std::int64_t* digits, std::int64_t* counts) {
  using namespace korvex::kernels;
  __shared__ StateBlockMemory<korvex::arithmetic::ExactSum> block;
  add_elements_by_grid(DeviceThread(), elements(x, x_stride, x_format), n, {digits, counts, sign},
                       block);
}

// Adds the products of n pairs to the digits of a sum of products, or takes them away.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_add_products(long long n, const void* x, long long x_stride, long long x_format,
                        const void* y, long long y_stride, long long y_format, long long sign,
                        std::int64_t* digits, std::int64_t* counts) {
  using namespace korvex::kernels;
  __shared__ StateBlockMemory<korvex::arithmetic::ExactProductSum> block;
  add_products_by_grid(DeviceThread(), elements(x, x_stride, x_format),
                       elements(y, y_stride, y_format), n, {digits, counts, sign}, block);
}

// Brings the digits of a state into [0, 2^32); by the first block.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    korvex_settle_state(long long kind, std::int64_t* words) {
  using namespace korvex::kernels;
  __shared__ StateWorkMemory block;
  const DeviceThread thread;
  if (thread.block() == 0) {
    settle_by_block(thread, state_kind(kind), words, block);
  }
}

// Writes the value of a state, rounded once to a format; by the first block.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    korvex_round_state(long long kind, const std::int64_t* words, long long of_products,
                       long long format, void* out) {
  using namespace korvex::kernels;
  __shared__ StateWorkMemory block;
  const DeviceThread thread;
  if (thread.block() == 0) {
    round_by_block(thread, state_kind(kind), words, of_products != 0, static_cast<int>(format), out,
                   block);
  }
}
