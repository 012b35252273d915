// SPDX-License-Identifier: Apache-2.0
// Kernels of the single-block reductions: variance, norm, product, running sums, log of a sum of
// exponentials.
//
// Phases: each thread takes a run of neighbouring elements into a part of its own, in static
// memory; the parts are joined two by two; one thread rounds. Parts are exact, or lie on a grid, so
// the result does not depend on the number of threads. Only block 0 works, and any number of
// threads up to kSingleBlock may do. A run starts at any element, at 8 bytes and not at 16, so it
// is read one double at a time: a wider load there would fault. The kernels ask for one block on a
// multiprocessor: left to itself the compiler halves the registers where two would fit, for a
// second block that no launch has.
#pragma once

#include <new>

#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/elementary/log_sum_exp_wide.h"
#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/arithmetic/exact/norm.h"
#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/variance.h"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// What a thread of the running sums holds.
struct SegmentSum {
  arithmetic::ExactSum through;  // of the segment, then also of those before it
  arithmetic::PrefixSum prefix;
};

constexpr std::size_t larger(std::size_t a, std::size_t b) { return a > b ? a : b; }
constexpr std::size_t kPartBytes =
    larger(larger(sizeof(arithmetic::Moments), sizeof(SegmentSum)),
           larger(sizeof(arithmetic::FastProduct),
                  sizeof(arithmetic::WideExpSum<arithmetic::kThirdTryWords>)));

struct alignas(16) PartMemory {
  unsigned char bytes[kPartBytes];
};

union ReductionWorkspace {
  arithmetic::VarianceWorkspace variance;
  arithmetic::NormWorkspace norm;
};

// Launches of these kernels never overlap: all are made on the null stream of the device.
__device__ PartMemory part_memory[kSingleBlock];
__device__ ReductionWorkspace reduction_workspace;
// A AccurateProductWorkspace: static memory is not constructed.
alignas(16) __device__
    unsigned char accurate_product_memory[sizeof(arithmetic::AccurateProductWorkspace)];

class BlockRunner {
 public:
  __device__ __forceinline__ BlockRunner(const double* x, std::int64_t n) : x_(x) {
    const std::int64_t count = thread_.threads();
    const std::int64_t index = thread_.index();
    const std::int64_t rest = n % count;
    begin_ = n / count * index + (index < rest ? index : rest);
    end_ = begin_ + n / count + (index < rest ? 1 : 0);
  }

  __device__ __forceinline__ bool is_first() const { return thread_.index() == 0; }
  __device__ __forceinline__ std::int64_t begin() const { return begin_; }
  __device__ __forceinline__ std::int64_t size() const { return end_ - begin_; }

  template <class Part>
  __device__ __forceinline__ Part& part(int index) const {
    return *reinterpret_cast<Part*>(part_memory[index].bytes);
  }
  template <class Part>
  __device__ __forceinline__ Part& own_part() const {
    return part<Part>(thread_.index());
  }

  // All threads together: the join of work(x, count, part) over all runs of elements. It stands
  // until the next call.
  template <class Part, class Work>
  __device__ __forceinline__ Part& over(const Work& work) const {
    thread_.sync_block();
    Part& own = *new (part_memory[thread_.index()].bytes) Part();
    work(x_ + begin_, size(), own);
    for (int distance = 1; distance < thread_.threads(); distance *= 2) {
      thread_.sync_block();
      const int other = thread_.index() + distance;
      if (thread_.index() % (2 * distance) == 0 && other < thread_.threads()) {
        own.add(part<Part>(other));
      }
    }
    thread_.sync_block();
    return part<Part>(0);
  }

  __device__ __forceinline__ void sync() const { thread_.sync_block(); }
  __device__ __forceinline__ int index() const { return thread_.index(); }
  __device__ __forceinline__ int threads() const { return thread_.threads(); }

 private:
  DeviceThread thread_;
  const double* x_;
  std::int64_t begin_;  // the run of this thread
  std::int64_t end_;
};

// Only the first block of a grid works; the others return at once.
__device__ __forceinline__ bool is_in_first_block() {
  return blockIdx.x == 0 && blockIdx.y == 0 && blockIdx.z == 0;
}

// The sums of the segments become the sums through each of them, by doubling distances (Hillis and
// Steele 1986). Segments from `count` on are empty and take no part. All threads together.
__device__ __forceinline__ void scan_segments(const BlockRunner& runner, std::int64_t count) {
  SegmentSum& own = runner.own_part<SegmentSum>();
  arithmetic::ExactSum& next = own.prefix;
#pragma unroll 1
  for (int distance = 1; distance < runner.threads() && distance < count; distance *= 2) {
    const bool has_more = runner.index() >= distance && runner.index() < count;
    runner.sync();
    if (has_more) {
      next = own.through;
      next.add(runner.part<SegmentSum>(runner.index() - distance).through);
    }
    runner.sync();
    if (has_more) {
      own.through = next;
    }
  }
  runner.sync();
}

}  // namespace korvex::kernels

// out_mean[0], out_var[0]: mean and variance of x, divisor n - 1, correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kSingleBlock, 1)
    tqx_var_kernel(const double* x, double* out_mean, double* out_var, long long n) {
  using namespace korvex;
  using arithmetic::Moments;
  if (!kernels::is_in_first_block()) {
    return;
  }
  const kernels::BlockRunner runner(x, n);
  Moments& moments = runner.over<Moments>([](const double* run, std::int64_t count, Moments& part) {
    part.add_elements<arithmetic::ScalarLanes>(run, count);
  });
  if (runner.is_first()) {
    arithmetic::write_variance(moments, n, kernels::reduction_workspace.variance, out_mean,
                               out_var);
  }
}

// out[0]: the Euclidean norm of x, correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kSingleBlock, 1)
    tqx_norm_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  using arithmetic::ExactProductSum;
  if (!kernels::is_in_first_block()) {
    return;
  }
  const kernels::BlockRunner runner(x, n);
  ExactProductSum& squares = runner.over<ExactProductSum>(
      [](const double* run, std::int64_t count, ExactProductSum& part) {
        arithmetic::add_products<arithmetic::ScalarLanes>(run, run, count, part);
      });
  if (runner.is_first()) {
    arithmetic::write_norm(squares, kernels::reduction_workspace.norm, out);
  }
}

// out[0], out_err[0]: the product of x, and what is left of it, each correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kSingleBlock, 1)
    tqx_prod_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  using arithmetic::FastProduct;
  if (!kernels::is_in_first_block()) {
    return;
  }
  const kernels::BlockRunner runner(x, n);
  const FastProduct& product = runner.over<FastProduct>(
      [](const double* run, std::int64_t count, FastProduct& part) { part.add_range(run, count); });
  if (runner.is_first()) {
    auto& accurate = *new (kernels::accurate_product_memory) arithmetic::AccurateProductWorkspace;
    arithmetic::write_product(product, x, n, accurate, out, out_err);
  }
}

// out[i], out_err[i]: the sum of x[0] to x[i], and what is left of it, each correctly rounded.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kSingleBlock, 1)
    tqx_cumsum_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  using kernels::SegmentSum;
  if (!kernels::is_in_first_block()) {
    return;
  }
  const kernels::BlockRunner runner(x, n);
  SegmentSum& own = *new (&runner.own_part<SegmentSum>()) SegmentSum();
  arithmetic::add_range<arithmetic::ScalarLanes>(x + runner.begin(), runner.size(), own.through);
  kernels::scan_segments(runner, n);
  if (runner.size() <= 0) {
    return;
  }
  arithmetic::PrefixSum& prefix = *new (&own.prefix) arithmetic::PrefixSum();
  if (!runner.is_first()) {
    prefix.start(runner.part<SegmentSum>(runner.index() - 1).through);
  }
  prefix.scan(x + runner.begin(), runner.size(), out + runner.begin(), out_err + runner.begin());
}

// out[0]: log(exp(x[0]) + ... + exp(x[n - 1])), correctly rounded save where 1472 bits cannot tell.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kSingleBlock, 1)
    tqx_logsumexp_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  if (!kernels::is_in_first_block()) {
    return;
  }
  const kernels::BlockRunner runner(x, n);
  const double result = arithmetic::log_sum_exp_in_memory(runner, n);
  if (runner.is_first()) {
    out[0] = result;
  }
}
