// SPDX-License-Identifier: Apache-2.0
// The names of CUDA that the kernels use, for a host compiler: device code includes nothing else of
// CUDA, and runs on a grid of fibers (cuda_grid.h).
//
// Memory of a block is static here, in a section of its own that the grid exchanges when another
// block goes on. Include this first: the standard headers spell some of these words themselves.
#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

// NOLINTBEGIN(bugprone-reserved-identifier)
#define __global__
#define __device__
#define __shared__ static __attribute__((section("korvex_shared")))
#define __forceinline__ inline
#define __noinline__ __attribute__((noinline))
#define __launch_bounds__(...)

struct uint3 {
  unsigned x, y, z;
};
using dim3 = uint3;

// Of the thread that runs.
extern uint3 threadIdx;
extern uint3 blockIdx;
extern dim3 blockDim;
extern dim3 gridDim;

struct alignas(16) double2 {
  double x, y;
};
inline double2 __ldg(const double2* from) { return *from; }

void __syncthreads();
int __syncthreads_or(int condition);
void __syncwarp(unsigned mask = 0xffffffff);
void __threadfence();
[[noreturn]] void __trap();

bool __any_sync(unsigned mask, bool condition);
unsigned __reduce_max_sync(unsigned mask, unsigned value);
unsigned __shfl_xor_sync(unsigned mask, unsigned value, int distance);
unsigned long long __shfl_xor_sync(unsigned mask, unsigned long long value, int distance);

// What was there before comes back.
unsigned atomicOr(unsigned* target, unsigned bits);
unsigned long long atomicOr(unsigned long long* target, unsigned long long bits);
unsigned long long atomicAdd(unsigned long long* target, unsigned long long value);
unsigned long long atomicExch(unsigned long long* target, unsigned long long value);
// NOLINTEND(bugprone-reserved-identifier)
