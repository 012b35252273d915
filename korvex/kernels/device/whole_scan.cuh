// SPDX-License-Identifier: Apache-2.0
// Running sums over the whole device, for what one block does otherwise.
//
// The elements are dealt out in runs of neighbours, 16 to a block. Two launches: the first finds
// the sum of each block's runs; the second that of each run once more, adds up what stands before
// it, and from there 16 threads of a block go through a run each. Sums are exact and lie in digits
// that add up without carrying, so where a run starts does not show in the results, which the exact
// sums so far define.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/device/warp_sum.h"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Blocks beyond these do no work, and beyond those that have so many elements each.
constexpr std::int64_t kMostScanBlocks = 1024;
constexpr std::int64_t kLeastElementsOfScan = 512;
constexpr int kRunsOfBlock = 16;

// A sum: digits, all but the last between 0 and 2^32, and for each kind of what is not finite how
// many runs have it. Numbers like these may be added up, 2^31 of them.
constexpr int kSpecialKinds = 3;
struct RunSum {
  std::int64_t digit[kSumDigits + kSpecialKinds];
};
constexpr int kRunDigits = kSumDigits + kSpecialKinds;

// Of the blocks of the first launch.
__device__ RunSum sums_of_blocks[kMostScanBlocks];

// The runs of one block.
struct BlockRuns {
  RunSum sum[kRunsOfBlock];  // of each; in the second launch then of all that stands before it
  unsigned special[kRunsOfBlock];
};

// Which elements a block's runs are.
class RunsOfGrid {
 public:
  __device__ __forceinline__ RunsOfGrid(const DeviceThread& thread, std::int64_t n)
      : blocks_(blocks_for(thread.blocks(), n)),
        size_(n / (blocks_ * kRunsOfBlock)),
        rest_(n % (blocks_ * kRunsOfBlock)),
        first_(thread.block() * kRunsOfBlock) {}

  __device__ __forceinline__ bool has_block(const DeviceThread& thread) const {
    return thread.block() < blocks_;
  }
  // Of one run of the block.
  __device__ __forceinline__ std::int64_t begin(int run) const {
    const std::int64_t index = first_ + run;
    return size_ * index + (index < rest_ ? index : rest_);
  }
  __device__ __forceinline__ std::int64_t size(int run) const {
    return begin(run + 1) - begin(run);
  }

 private:
  __device__ __forceinline__ static std::int64_t blocks_for(std::int64_t blocks, std::int64_t n) {
    const std::int64_t wanted = n / kLeastElementsOfScan + 1;
    const std::int64_t most = wanted < kMostScanBlocks ? wanted : kMostScanBlocks;
    return blocks < most ? blocks : most;
  }

  std::int64_t blocks_;
  std::int64_t size_;  // of a run; the first have one element more
  std::int64_t rest_;  // so many
  std::int64_t first_;
};

// By a whole warp: the sum of one run. Tiles are read in pairs of elements: a run that starts
// between two pairs is read from its second element on.
__device__ __noinline__ void sum_run(const DeviceThread& thread, const double* x, std::int64_t n,
                                     RunSum& run, unsigned& special) {
  for (int i = thread.lane(); i < kRunDigits; i += kLanes) {
    run.digit[i] = 0;
  }
  if (thread.lane() == 0) {
    special = 0;
  }
  thread.sync_warp();
  WarpSum<DeviceThread> sum(thread, run.digit, special);
  const std::int64_t head = n > 0 && !thread.is_pair_aligned(x) ? 1 : 0;
  if (head == 1 && thread.lane() == 0) {
    const WarpSum<DeviceThread> copy = sum;
    copy.add_element(x[0]);
  }
  int tiles_before_carry = kTilesBetweenCarries;
  for (std::int64_t begin = head; begin < n; begin += kTile) {
    const std::int64_t rest = n - begin;
    sum.add_tile(x + begin, rest < kTile ? static_cast<int>(rest) : kTile);
    if (--tiles_before_carry == 0) {
      const WarpSum<DeviceThread> copy = sum;
      copy.carry();
      tiles_before_carry = kTilesBetweenCarries;
    }
  }
  sum.finish();
  sum.carry();
  if (thread.lane() < kSpecialKinds) {
    run.digit[kSumDigits + thread.lane()] = special >> thread.lane() & 1;
  }
}

// All threads of a block together: the sums of its runs.
__device__ __forceinline__ void sum_runs(const DeviceThread& thread, const RunsOfGrid& runs,
                                         const double* x, BlockRuns& block) {
#pragma unroll 1
  for (int run = thread.warp(); run < kRunsOfBlock; run += thread.warps()) {
    sum_run(thread, x + runs.begin(run), runs.size(run), block.sum[run], block.special[run]);
  }
  thread.sync_block();
}

// All threads of a block together: the sum of each run becomes that of all that stands before it,
// in the blocks before and in this one.
__device__ __forceinline__ void sum_before_runs(const DeviceThread& thread, BlockRuns& block) {
#pragma unroll 1
  for (int i = thread.index(); i < kRunDigits; i += thread.threads()) {
    std::int64_t before = 0;
#pragma unroll 8
    for (std::int64_t other = 0; other < thread.block(); ++other) {
      before += sums_of_blocks[other].digit[i];
    }
#pragma unroll 1
    for (int run = 0; run < kRunsOfBlock; ++run) {
      const std::int64_t own = block.sum[run].digit[i];
      block.sum[run].digit[i] = before;
      before += own;
    }
  }
  thread.sync_block();
}

// By one thread: the running sums begin after these.
__device__ __noinline__ void start_after(const RunSum& before, arithmetic::PrefixSum& prefix) {
  unsigned special = 0;
  for (int i = 0; i < kSpecialKinds; ++i) {
    special |= before.digit[kSumDigits + i] != 0 ? 1U << i : 0;
  }
  add_specials(special, prefix);
  for (int i = 0; i < kSumDigits; ++i) {
    if (before.digit[i] != 0) {
      prefix.add_digit(i, before.digit[i]);
    }
  }
  prefix.start();
}

}  // namespace korvex::kernels

// For tqx_cumsum_kernel, the first of two: the sums of blocks stay in static memory.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentSumBlocks)
    tqx_cumsum_device_sum_kernel(const double* x, double* /*out*/, double* /*out_err*/,
                                 long long n) {
  using namespace korvex;
  __shared__ kernels::BlockRuns block;
  const kernels::DeviceThread thread;
  const kernels::RunsOfGrid runs(thread, n);
  if (!runs.has_block(thread)) {
    return;
  }
  kernels::sum_runs(thread, runs, x, block);
  for (int i = thread.index(); i < kernels::kRunDigits; i += thread.threads()) {
    std::int64_t sum = 0;
#pragma unroll 1
    for (const kernels::RunSum& run : block.sum) {
      sum += run.digit[i];
    }
    kernels::sums_of_blocks[thread.block()].digit[i] = sum;
  }
}

// The second. out[i], out_err[i]: the sum of x[0] to x[i], and what is left of it, each correctly
// rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentSumBlocks)
    tqx_cumsum_device_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  using arithmetic::PrefixSum;
  __shared__ kernels::BlockRuns block;
  alignas(PrefixSum) __shared__ unsigned char memory[kernels::kRunsOfBlock][sizeof(PrefixSum)];
  const kernels::DeviceThread thread;
  const kernels::RunsOfGrid runs(thread, n);
  if (!runs.has_block(thread)) {
    return;
  }
  kernels::sum_runs(thread, runs, x, block);
  kernels::sum_before_runs(thread, block);
  const int run = thread.index();
  if (run < kernels::kRunsOfBlock) {
    PrefixSum& prefix = *new (memory[run]) PrefixSum;
    kernels::start_after(block.sum[run], prefix);
    const std::int64_t begin = runs.begin(run);
    prefix.scan(x + begin, runs.size(run), out + begin, out_err + begin);
  }
}
