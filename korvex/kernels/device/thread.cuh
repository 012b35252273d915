// SPDX-License-Identifier: Apache-2.0
// One thread of a GPU, as the code of parallel kernels sees it: its place in the grid, votes and
// sums over its warp, atomic additions.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/base/portability.h"

namespace korvex::kernels {

class DeviceThread {
 public:
  __device__ __forceinline__ DeviceThread()
      : index_(
            static_cast<int>(threadIdx.x + blockDim.x * (threadIdx.y + blockDim.y * threadIdx.z))),
        threads_(static_cast<int>(blockDim.x * blockDim.y * blockDim.z)) {}

  // The place of a thread in its block, of a warp in its block, and so on; all count from 0.
  __device__ __forceinline__ int index() const { return index_; }
  __device__ __forceinline__ int lane() const { return index_ % 32; }
  __device__ __forceinline__ int warp() const { return index_ / 32; }
  __device__ __forceinline__ int threads() const { return threads_; }
  __device__ __forceinline__ int warps() const { return threads_ / 32; }
  __device__ __forceinline__ std::int64_t block() const {
    return blockIdx.x + gridDim.x * (blockIdx.y + gridDim.y * std::int64_t{blockIdx.z});
  }
  __device__ __forceinline__ std::int64_t blocks() const {
    return gridDim.x * (gridDim.y * std::int64_t{gridDim.z});
  }

  // Together with all lanes of the warp: is it true in any, the largest, the sum modulo 2^64.
  __device__ __forceinline__ bool any(bool condition) const {
    return __any_sync(kAllLanes, condition);
  }
  __device__ __forceinline__ unsigned max(unsigned value) const {
#if __CUDA_ARCH__ >= 800 || !defined(KORVEX_DEVICE_COMPILER)
    return __reduce_max_sync(kAllLanes, value);
#else
    for (int distance = 16; distance > 0; distance /= 2) {
      const unsigned other = __shfl_xor_sync(kAllLanes, value, distance);
      value = other > value ? other : value;
    }
    return value;
#endif
  }
  __device__ __forceinline__ std::int64_t sum(std::int64_t value) const {
    auto total = static_cast<unsigned long long>(value);
    for (int distance = 16; distance > 0; distance /= 2) {
      total += __shfl_xor_sync(kAllLanes, total, distance);
    }
    return static_cast<std::int64_t>(total);
  }

  // Two neighbouring elements that start at a multiple of 16 bytes.
  __device__ __forceinline__ bool is_pair_aligned(const double* x) const {
    return reinterpret_cast<std::uintptr_t>(x) % sizeof(double2) == 0;
  }
  __device__ __forceinline__ void load_pair(const double* x, double* into) const {
    const double2 pair = __ldg(reinterpret_cast<const double2*>(x));
    into[0] = pair.x;
    into[1] = pair.y;
  }

  // Atomic, in memory of the block; the compiler does not see that it is that, and would first try
  // an operation on the memory of the grid.
  __device__ __forceinline__ void add_to_block(std::int64_t& target, std::int64_t value) const {
#ifdef KORVEX_DEVICE_COMPILER
    asm volatile("red.shared.add.u64 [%0], %1;" ::"r"(shared_address(&target)), "l"(value)
                 : "memory");
#else
    atomicAdd(word(target), static_cast<unsigned long long>(value));
#endif
  }
  __device__ __forceinline__ void set_bits_of_block(unsigned& target, unsigned bits) const {
#ifdef KORVEX_DEVICE_COMPILER
    asm volatile("red.shared.or.b32 [%0], %1;" ::"r"(shared_address(&target)), "r"(bits)
                 : "memory");
#else
    atomicOr(&target, bits);
#endif
  }

  // Atomic, in memory of the grid; what was there before comes back.
  __device__ __forceinline__ std::int64_t add_to_grid(std::int64_t& target,
                                                      std::int64_t value) const {
    return static_cast<std::int64_t>(
        atomicAdd(word(target), static_cast<unsigned long long>(value)));
  }
  __device__ __forceinline__ void set_bits_of_grid(std::int64_t& target, std::int64_t bits) const {
    atomicOr(word(target), static_cast<unsigned long long>(bits));
  }
  __device__ __forceinline__ std::int64_t take_from_grid(std::int64_t& target) const {
    return static_cast<std::int64_t>(atomicExch(word(target), 0ULL));
  }

  // Sequentially consistent, on which the pattern of the last block rests (arrives_last): a fence
  // that only releases, or only acquires, would not do for both of its calls.
  __device__ __forceinline__ void fence() const { __threadfence(); }
  // What threads of the warp, of the block, did before this comes before what they do after.
  __device__ __forceinline__ void sync_warp() const { __syncwarp(); }
  __device__ __forceinline__ void sync_block() const { __syncthreads(); }
  // The same, and whether it is true in any of them.
  __device__ __forceinline__ bool any_of_block(bool condition) const {
    return __syncthreads_or(condition ? 1 : 0) != 0;
  }

 private:
  static constexpr unsigned kAllLanes = 0xffffffff;

#ifdef KORVEX_DEVICE_COMPILER
  __device__ __forceinline__ static unsigned shared_address(const void* pointer) {
    return static_cast<unsigned>(__cvta_generic_to_shared(pointer));
  }
#endif

  __device__ __forceinline__ static unsigned long long* word(std::int64_t& target) {
    return reinterpret_cast<unsigned long long*>(&target);
  }

  int index_;
  int threads_;
};

// True in the one thread that works in a kernel of one thread.
__device__ __forceinline__ bool is_first_thread_of_grid() {
  return blockIdx.x == 0 && blockIdx.y == 0 && blockIdx.z == 0 && threadIdx.x == 0 &&
         threadIdx.y == 0 && threadIdx.z == 0;
}

}  // namespace korvex::kernels
