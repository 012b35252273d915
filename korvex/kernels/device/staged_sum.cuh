// SPDX-License-Identifier: Apache-2.0
// The exact sum of an array by one thread, which would wait for memory most of the time if it read
// the array as it goes: pieces of it are copied to shared memory one piece ahead.
//
// Cost: two thirds of the time are the additions of the biased cascade; a copy takes one
// instruction for two elements. Devices before compute capability 8.0 have no copies that run by
// themselves: there each piece is copied before it is summed.
#pragma once

#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/device/async_copy.cuh"
#include "korvex/kernels/device/lanes.cuh"

namespace korvex::kernels {

constexpr int kPiece = 2048;

// A group of its own, empty where count <= 0; `to` lies at a multiple of 16 bytes. Where `from`
// does too, pairs are copied.
__device__ __noinline__ void start_copying(const double* from, std::int64_t count, double* to) {
  const bool in_pairs = reinterpret_cast<std::uintptr_t>(from) % sizeof(double2) == 0;
  const std::int64_t paired = in_pairs ? count / 2 * 2 : 0;
#pragma unroll 16
  for (std::int64_t i = 0; i < paired; i += 2) {
    start_copying_pair(from + i, to + i);
  }
#pragma unroll 16
  for (std::int64_t i = paired; i < count; ++i) {
    start_copying_one(from + i, to + i);
  }
  end_group_of_copies();
}

__device__ __forceinline__ std::int64_t piece_size(std::int64_t rest) {
  return rest < kPiece ? rest : kPiece;
}

// Adds x[0] to x[n - 1] to the sum. pieces: shared memory for two of them, at a multiple of 16
// bytes.
__device__ __forceinline__ void add_staged(const double* x, std::int64_t n,
                                           double (*pieces)[kPiece], arithmetic::ExactSum& sum) {
  if (n > 0 && reinterpret_cast<std::uintptr_t>(x) % sizeof(double2) != 0) {
    sum.add(x[0]);
    ++x;
    --n;
  }
  arithmetic::ChunkedSum<DeviceLanes, 1> chunks(sum);
  start_copying(x, piece_size(n), pieces[0]);
  for (int slot = 0; n > 0; slot = 1 - slot) {
    const std::int64_t count = piece_size(n);
    x += count;
    n -= count;
    start_copying(x, piece_size(n), pieces[1 - slot]);
    wait_for_copies_before_the_latest<1>();
    chunks.add({pieces[slot]}, count);
  }
}

}  // namespace korvex::kernels
