// SPDX-License-Identifier: Apache-2.0
// The logarithm of a sum of exponentials over the whole device, for what one block does otherwise.
//
// Three launches: the largest element; the sum of the first try; that of the second, with 256 bits.
// What one leaves in static memory the next finds there, and where a result is decided the next
// ones return at once. Terms are cut to a fixed grid, so sums are integers, and bits do not depend
// on who has added what. A sum that even 256 bits leave open is taken once more by the block that
// has found that, with the steps of the kernel that these stand for.
#pragma once

#include <new>

#include "korvex/arithmetic/elementary/log_sum_exp_wide.h"
#include "korvex/kernels/device/grid_parts.cuh"
#include "korvex/kernels/device/reductions.cuh"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// How many blocks have handed in their part; the loader knows it by this name and clears it before
// each launch.
extern "C" {
__device__ std::int64_t logsumexp_grid_memory;
}

// What the launches so far have found.
__device__ arithmetic::LogSumTry log_sum_so_far;

// By one thread.
__device__ __forceinline__ void keep_log_sum(const arithmetic::LogSumTry& found, double* out) {
  log_sum_so_far = found;
  if (found.result.is_decided) {
    out[0] = found.result.value;
  }
}

using SecondTrySum = arithmetic::WideExpSum<arithmetic::kSecondTryWords>;
using SecondTryPart = arithmetic::FixedExpSum<arithmetic::kSecondTryWords>;

// The numbers that a thread of the second try works with are too many for its stack, and for all
// threads too many for the memory of a block: the first half of the threads has them, and each of
// those takes the elements of another one too.
constexpr int kSecondTryThreads = kGridBlock / 2;

// Adds the terms of a thread and of the one half a block after it.
__device__ __noinline__ void add_wide_terms(const double* x, std::int64_t n, std::int64_t first,
                                            std::int64_t stride, std::int64_t half,
                                            SecondTrySum& numbers, SecondTryPart& part) {
  const double largest = log_sum_so_far.largest;
  auto& own = *new (&numbers) SecondTrySum;
#pragma unroll 1
  for (std::int64_t i = first; i < n; i += stride) {
    own.add_term(x[i], largest);
    if (i + half < n) {
      own.add_term(x[i + half], largest);
    }
  }
  part.sum = own.sum;
}

// By one thread of the grid.
__device__ __noinline__ arithmetic::Rounded round_second_try(const SecondTryPart& part,
                                                             SecondTrySum& numbers,
                                                             std::int64_t n) {
  auto& own = *new (&numbers) SecondTrySum;
  own.sum = part.sum;
  return arithmetic::wide_log_sum(log_sum_so_far.largest, own, n);
}

}  // namespace korvex::kernels

// For tqx_logsumexp_kernel, the first of three: the largest element stays in static memory.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    tqx_logsumexp_device_largest_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  using arithmetic::LargestElement;
  __shared__ kernels::MemoryOf<LargestElement> parts[kernels::kGridBlock];
  __shared__ bool is_last;
  const kernels::DeviceThread thread;
  const LargestElement* head =
      kernels::join_over_grid(thread, parts, is_last, kernels::logsumexp_grid_memory,
                              [=](std::int64_t first, std::int64_t stride, LargestElement& part) {
                                for (std::int64_t i = first; i < n; i += stride) {
                                  part.add_range(x + i, 1);
                                }
                              });
  if (head != nullptr && thread.index() == 0) {
    kernels::keep_log_sum(arithmetic::log_sum_of_largest(*head), out);
  }
}

// The second: the sum of the first try. out[0]: the result, where that decides it.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentElementaryBlocks)
    tqx_logsumexp_device_sum_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  using arithmetic::ExpSum;
  __shared__ kernels::MemoryOf<ExpSum> parts[kernels::kGridBlock];
  __shared__ bool is_last;
  if (kernels::log_sum_so_far.result.is_decided) {
    return;
  }
  const kernels::DeviceThread thread;
  const double largest = kernels::log_sum_so_far.largest;
  const ExpSum* sum =
      kernels::join_over_grid(thread, parts, is_last, kernels::logsumexp_grid_memory,
                              [=](std::int64_t first, std::int64_t stride, ExpSum& part) {
#pragma unroll 1
                                for (std::int64_t i = first; i < n; i += stride) {
                                  part.add_term(x[i], largest);
                                }
                              });
  if (sum != nullptr && thread.index() == 0) {
    kernels::keep_log_sum({arithmetic::fast_log_sum(largest, *sum, n), largest}, out);
  }
}

// The third: the second try, and where that leaves the result open the last. out[0]: the result.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentElementaryBlocks)
    tqx_logsumexp_device_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  using kernels::SecondTryPart;
  __shared__ kernels::MemoryOf<SecondTryPart> parts[kernels::kGridBlock];
  __shared__ kernels::MemoryOf<kernels::SecondTrySum> numbers[kernels::kSecondTryThreads];
  __shared__ bool is_last;
  if (kernels::log_sum_so_far.result.is_decided) {
    return;
  }
  const kernels::DeviceThread thread;
  const int half = thread.threads() / 2;
  const SecondTryPart* sum = kernels::join_over_grid(
      thread, parts, is_last, kernels::logsumexp_grid_memory,
      [&](std::int64_t first, std::int64_t stride, SecondTryPart& part) {
        const int place = thread.index();
        if (place < half) {
          kernels::add_wide_terms(x, n, first, stride, half, numbers[place].value(), part);
        }
      });
  if (sum == nullptr) {
    return;
  }
  if (thread.index() == 0) {
    const double largest = kernels::log_sum_so_far.largest;
    kernels::keep_log_sum({kernels::round_second_try(*sum, numbers[0].value(), n), largest}, out);
  }
  thread.sync_block();
  if (kernels::log_sum_so_far.result.is_decided) {
    return;
  }
  const arithmetic::Rounded third = arithmetic::try_in_memory<arithmetic::kThirdTryWords>(
      kernels::BlockRunner(x, n), kernels::log_sum_so_far.largest, n);
  if (thread.index() == 0) {
    out[0] = third.value;
  }
}
