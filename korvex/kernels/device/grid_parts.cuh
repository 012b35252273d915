// SPDX-License-Identifier: Apache-2.0
// A result that comes from parts of it, one for each thread of a grid.
//
// Phases: each thread of a block takes every so manyth element into a part of its own, in the
// memory of the block; the parts of a block are joined two by two, and the first thread hands in
// the result; the block that arrives last joins those of all blocks. Parts can be joined in any
// order, so the result depends neither on the grid nor on the order of arrival.
//
// A Part is what Part() makes, and has add(other).
#pragma once

#include <new>

#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/kernels/device/parallel_sum.h"
#include "korvex/kernels/device/thread.cuh"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Blocks beyond these do no work.
constexpr std::int64_t kMostPartBlocks = 1024;

// Memory for a part: that of a block, and static memory, is not constructed.
template <class Part>
struct alignas(Part) MemoryOf {
  unsigned char bytes[sizeof(Part)];

  __device__ __forceinline__ Part& value() { return *reinterpret_cast<Part*>(bytes); }
  __device__ __forceinline__ const Part& value() const {
    return *reinterpret_cast<const Part*>(bytes);
  }
};

// What the blocks hand in, of whichever kernel. Launches of these never overlap: all are made on
// the null stream of the device.
constexpr std::size_t kMostPartBytes = sizeof(arithmetic::FastProduct);
alignas(16) __device__ unsigned char parts_of_blocks[kMostPartBlocks * kMostPartBytes];

// The parts of all threads of a block become one, in the first of them.
template <class Part>
__device__ __noinline__ void join_parts(const DeviceThread& thread, MemoryOf<Part>* parts) {
#pragma unroll 1
  for (int distance = 1; distance < thread.threads(); distance *= 2) {
    thread.sync_block();
    const int other = thread.index() + distance;
    if (thread.index() % (2 * distance) == 0 && other < thread.threads()) {
      parts[thread.index()].value().add(parts[other].value());
    }
  }
  thread.sync_block();
}

// Of all that the blocks have handed in.
template <class Part>
__device__ __forceinline__ void join_blocks_of(const DeviceThread& thread, std::int64_t blocks,
                                               const MemoryOf<Part>* handed_in,
                                               MemoryOf<Part>* parts) {
  Part& own = *new (parts[thread.index()].bytes) Part();
#pragma unroll 1
  for (std::int64_t i = thread.index(); i < blocks; i += thread.threads()) {
    own.add(handed_in[i].value());
  }
  join_parts(thread, parts);
}

// The join of work(first, stride, part) over all threads, which take the elements from `first` on
// in strides: in all threads of the block that comes last, in parts[0] of its memory; a null
// pointer in all others. parts, for each thread of a block, and is_last lie in the block's memory;
// arrived is the grid's, zero before the launch and after it.
template <class Part, class Work>
__device__ __forceinline__ Part* join_over_grid(const DeviceThread& thread, MemoryOf<Part>* parts,
                                                bool& is_last, std::int64_t& arrived,
                                                const Work& work) {
  static_assert(sizeof(Part) <= kMostPartBytes && alignof(Part) <= 16);
  auto* const handed_in = reinterpret_cast<MemoryOf<Part>*>(parts_of_blocks);
  const std::int64_t blocks = thread.blocks() < kMostPartBlocks ? thread.blocks() : kMostPartBlocks;
  if (thread.block() < blocks) {
    Part& own = *new (parts[thread.index()].bytes) Part();
    work(thread.block() * thread.threads() + thread.index(), blocks * thread.threads(), own);
    join_parts(thread, parts);
    if (thread.index() == 0) {
      handed_in[thread.block()] = parts[0];
    }
  }
  if (!arrives_last(thread, is_last, arrived)) {
    return nullptr;
  }
  join_blocks_of(thread, blocks, handed_in, parts);
  if (thread.index() == 0) {
    thread.take_from_grid(arrived);
  }
  return &parts[0].value();
}

}  // namespace korvex::kernels
