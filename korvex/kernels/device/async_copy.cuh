// SPDX-License-Identifier: Apache-2.0
// Copies from the memory of the grid to that of the block that run by themselves, in groups.
//
// Devices before compute capability 8.0 have none: there a copy is done when it is started. A host
// that simulates a grid brings its own (tests/device_code/cuda_grid.cpp).
#pragma once

#include "korvex/arithmetic/base/portability.h"

namespace korvex::kernels {

#ifdef KORVEX_DEVICE_COMPILER

// Starts to copy two neighbouring elements; both addresses are multiples of 16 bytes.
__device__ __forceinline__ void start_copying_pair(const double* from, double* to) {
#if __CUDA_ARCH__ >= 800
  const auto shared_address = static_cast<unsigned>(__cvta_generic_to_shared(to));
  asm volatile("cp.async.cg.shared.global [%0], [%1], 16;" ::"r"(shared_address), "l"(from)
               : "memory");
#else
  *reinterpret_cast<double2*>(to) = *reinterpret_cast<const double2*>(from);
#endif
}

// Starts to copy one element.
__device__ __forceinline__ void start_copying_one(const double* from, double* to) {
#if __CUDA_ARCH__ >= 800
  const auto shared_address = static_cast<unsigned>(__cvta_generic_to_shared(to));
  asm volatile("cp.async.ca.shared.global [%0], [%1], 8;" ::"r"(shared_address), "l"(from)
               : "memory");
#else
  *to = *from;
#endif
}

// Ends the group of copies started since the last call.
__device__ __forceinline__ void end_group_of_copies() {
#if __CUDA_ARCH__ >= 800
  asm volatile("cp.async.commit_group;" ::: "memory");
#endif
}

// Waits for all groups of copies but the latest kGroups.
template <int kGroups>
__device__ __forceinline__ void wait_for_copies_before_the_latest() {
#if __CUDA_ARCH__ >= 800
  asm volatile("cp.async.wait_group %0;" ::"n"(kGroups) : "memory");
#endif
}

#else

void start_copying(const double* from, double* to, int bytes);
void end_group_of_copies();
void wait_for_copies_before(int groups);

inline void start_copying_pair(const double* from, double* to) { start_copying(from, to, 16); }
inline void start_copying_one(const double* from, double* to) { start_copying(from, to, 8); }
template <int kGroups>
void wait_for_copies_before_the_latest() {
  wait_for_copies_before(kGroups);
}

#endif

}  // namespace korvex::kernels
