// SPDX-License-Identifier: Apache-2.0
// Normalisation by the root of the mean square, by one block.
//
// Phases: each warp adds the squares of its tiles to digits of its own; the first thread joins them
// and works out the root; all threads multiply.
#pragma once

#include "korvex/arithmetic/elementary/rms_norm.h"
#include "korvex/kernels/device/parallel_dot.h"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// All of the long accumulator but the last digit, which is for carries.
constexpr int kSquareDigits = arithmetic::ProductAccumulator::kDigits - 1;

struct RmsNormMemory {
  std::int64_t digits[kSingleBlock / kLanes][arithmetic::ProductAccumulator::kDigits];
  std::int64_t low_halves[kSquareDigits];
  std::int64_t high_halves[kSquareDigits];
  unsigned special;
  arithmetic::ProductAccumulator sum;
  arithmetic::InverseRoot root;
};

// By a whole warp: its share of the tiles into its digits.
__device__ __forceinline__ void add_tiles_of_warp(const DeviceThread& thread, const double* x,
                                                  std::int64_t n, RmsNormMemory& block) {
  std::int64_t* own = block.digits[thread.warp()];
  for (int i = thread.lane(); i < arithmetic::ProductAccumulator::kDigits; i += kLanes) {
    own[i] = 0;
  }
  thread.sync_warp();
  const WarpProducts<DeviceThread> products(thread, own, block.special);
  const std::int64_t stride = std::int64_t{thread.warps()} * kDotTile;
  for (std::int64_t begin = std::int64_t{thread.warp()} * kDotTile; begin < n; begin += stride) {
    const std::int64_t rest = n - begin;
    products.add_tile(x + begin, x + begin, rest < kDotTile ? static_cast<int>(rest) : kDotTile);
  }
}

// Adds all squares: afterwards block.digits and block.special hold them. A vote waits for 32 lanes,
// so whole warps alone add: threads beyond the last of them only multiply later, and a block
// without a whole warp is an error of the launch.
__device__ __forceinline__ void add_squares(const DeviceThread& thread, const double* x,
                                            std::int64_t n, RmsNormMemory& block) {
  if (thread.warps() == 0) {
    __trap();
  }
  if (thread.index() == 0) {
    block.special = 0;
  }
  thread.sync_block();
  if (thread.warp() < thread.warps()) {
    add_tiles_of_warp(thread, x, n, block);
  }
  thread.sync_block();
}

// Joins the digits of all warps: afterwards low_halves and high_halves hold their sums. A digit has
// up to 63 bits, so halves of 32 are added apart.
__device__ __forceinline__ void join_warps(const DeviceThread& thread, RmsNormMemory& block) {
  for (int i = thread.index(); i < kSquareDigits; i += thread.threads()) {
    std::int64_t low = 0;
    std::int64_t high = 0;
    for (int warp = 0; warp < thread.warps(); ++warp) {
      low += block.digits[warp][i] & kDigitMask;
      high += block.digits[warp][i] >> kDigitBits;
    }
    block.low_halves[i] = low;
    block.high_halves[i] = high;
  }
  thread.sync_block();
}

// By one thread. The last digit has none above it: the sum of all squares leaves it small.
__device__ __noinline__ void find_root(std::int64_t n, double eps, RmsNormMemory& block) {
  block.sum.clear();
  for (int i = 0; i + 1 < kSquareDigits; ++i) {
    block.sum.add_digit(i, block.low_halves[i]);
    block.sum.add_digit(i + 1, block.high_halves[i]);
  }
  constexpr int kLast = kSquareDigits - 1;
  block.sum.add_digit(kLast, block.low_halves[kLast] + (block.high_halves[kLast] << kDigitBits));
  const bool any_nan = (block.special & kNan) != 0;
  block.root = arithmetic::inverse_root(block.sum, any_nan, block.special != 0, n, eps);
}

}  // namespace korvex::kernels

// out[i]: x[i] / sqrt(mean of all x[j]^2 + eps), correctly rounded. One block; others leave at
// once.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kSingleBlock, 1)
    tqx_rms_norm_kernel(const double* x, double* out, long long n, double eps) {
  using namespace korvex;
  alignas(arithmetic::InverseRoot) __shared__ unsigned char memory[sizeof(kernels::RmsNormMemory)];
  auto& block = *reinterpret_cast<kernels::RmsNormMemory*>(memory);
  const kernels::DeviceThread thread;
  if (thread.block() != 0 || n <= 0) {
    return;
  }
  kernels::add_squares(thread, x, n, block);
  kernels::join_warps(thread, block);
  if (thread.index() == 0) {
    kernels::find_root(n, eps, block);
  }
  thread.sync_block();
#pragma unroll 1
  for (std::int64_t i = thread.index(); i < n; i += thread.threads()) {
    out[i] = arithmetic::normalised(x[i], block.root);
  }
}
