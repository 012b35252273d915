// SPDX-License-Identifier: Apache-2.0
// The kernels of exact states, and how each is launched: they add arrays of any format to a state
// in the memory of a device (korvex/arithmetic/exact/exact_state.h), settle it and round it. Beside
// them stand those of matrix products and running sums of such arrays.
//
// They are files of their own beside those of table.h, with a loader of their own
// (korvex/exact_cuda). A parameter is an address or an integer, and takes 64 bits.
#pragma once

#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Number formats of elements, numbered as in korvex/kernels/host/exact.h.
enum ElementFormat : int {
  kBoolFormat,
  kInt8Format,
  kInt16Format,
  kInt32Format,
  kInt64Format,
  kUint8Format,
  kUint16Format,
  kUint32Format,
  kUint64Format,
  kFloat16Format,
  kBfloat16Format,
  kFloat32Format,
  kFloat64Format,
};

// What of an element a matrix of doubles holds. A 64-bit integer is the sum of the first two.
enum ElementPart : int {
  kWholePart,   // the element, rounded where it is such an integer
  kRestPart,    // what that rounding left out
  kFinitePart,  // the element, and 0 for an infinity or a NaN
};

inline constexpr int kMostStateParameters = 10;
// Blocks of kGridBlock threads for which a multiprocessor has registers at a time.
inline constexpr unsigned kResidentStateBlocks = 3;
// The same for the matrix product, which needs more registers.
inline constexpr unsigned kResidentProductBlocks = 2;
// Elements that a block takes where it gives several to each thread.
inline constexpr unsigned kWidenedBlockElements = 4 * kGridBlock;
// Of running sums: memory of a segment, and segments for which a block is started, so that few
// segments are spread over many multiprocessors.
inline constexpr unsigned kSegmentWords = 224;
inline constexpr unsigned kBlockSegments = 32;
// Enough blocks for any device; what they add to a digit in one launch stays below 2^45.
inline constexpr unsigned kMostStateBlocks = 4096;

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a row reads best in this order.
struct StateKernelRow {
  const char* name;
  const char* parameters;  // in the order of the arguments, separated by one space
  int parameter_count;
  // Blocks that fill a multiprocessor, and how much of the first argument there is for each block:
  // a launch has no more blocks than either asks for. 0: a single block.
  unsigned blocks_per_multiprocessor;
  unsigned elements_per_block;
};

// Strides are in bytes. `sign` is 1 or -1. Where `counts` is 0, nothing is counted: neither
// elements nor infinities and NaN. The kind of a state, of_products and format: as in host/exact.h.
// Results lie `step` elements apart.
inline constexpr StateKernelRow kStateKernels[] = {
    {"korvex_add_elements", "n x x_stride x_format sign digits counts", 7, kResidentStateBlocks,
     kSumBlockElements},
    {"korvex_add_products", "n x x_stride x_format y y_stride y_format sign digits counts", 10,
     kResidentStateBlocks, kDotBlockElements},
    {"korvex_settle_state", "kind words", 2, 0, 0},
    {"korvex_round_state", "kind words of_products format out", 5, 0, 0},
    {"korvex_widen", "n x x_stride x_format part inner copies out", 8, kResidentStateBlocks,
     kWidenedBlockElements},
    {"korvex_multiply", "tiles width a b rows columns depth out step format", 10,
     kResidentProductBlocks, 1},
    {"korvex_sum_segments", "segments memory n x x_stride x_format", 6, kResidentStateBlocks,
     kBlockSegments},
    {"korvex_join_segments", "segments memory n", 3, 0, 0},
    {"korvex_running_sums", "segments memory n x x_stride x_format out format", 8,
     kResidentStateBlocks, kBlockSegments},
};

inline constexpr int kStateKernelCount =
    static_cast<int>(sizeof kStateKernels / sizeof kStateKernels[0]);

}  // namespace korvex::kernels
