// SPDX-License-Identifier: Apache-2.0
// The kernels of exact states, and how each is launched: they add arrays of any format to a state
// in the memory of a device (korvex/arithmetic/exact/exact_state.h), settle it and round it. Beside
// them stand those of matrix products and running sums of such arrays, and of many states at a
// time: along dimensions, and by numbers of segments.
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

// Words before the extents of a description of operands (device/state_axes.h).
enum PlanWord : int {
  kPlanKept,      // dimensions that stay
  kPlanReduced,   // and the others
  kPlanRun,       // elements that follow each other along the last of these, or all of an output
  kPlanElements,  // of an output
  kPlanParts,     // into which those are cut
  kPlanByBlock,   // 1: blocks take them, 0: warps do
  kPlanWords,
};

// The same of elements that numbers of segments stand beside (device/state_ids.h).
enum SegmentWord : int {
  kSegmentRank,
  kSegmentRows,   // extent of the dimension that the numbers are about
  kSegmentInner,  // elements of one index of it and of those before it
  kSegmentCount,
  kSegmentPlanWords,
};

// What a state becomes, numbered as in korvex/kernels/host/exact.h but for the last.
enum StateFunctionNumber : int {
  kTotalFunction,
  kMeanFunction,
  kVarianceFunction,
  kDeviationFunction,
  kDotProductFunction,
  kNormFunction,
  kSettleFunction,  // a sum's state with settled digits
};

inline constexpr int kMostStateParameters = 12;
// Blocks of kGridBlock threads for which a multiprocessor has registers at a time.
inline constexpr unsigned kResidentStateBlocks = 3;
// The same for the matrix product, which needs more registers.
inline constexpr unsigned kResidentProductBlocks = 2;
// And for sums along dimensions, which follow more places at a time.
inline constexpr unsigned kResidentAxisBlocks = 2;
// Elements that a block takes where it gives several to each thread.
inline constexpr unsigned kWidenedBlockElements = 4 * kGridBlock;
// Of running sums: memory of a segment, and segments for which a block is started, so that few
// segments are spread over many multiprocessors.
inline constexpr unsigned kSegmentWords = 224;
inline constexpr unsigned kBlockSegments = 32;
// States that a block rounds at a time, one a warp.
inline constexpr unsigned kRoundedBlockStates = kGridBlock / 32;
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
// Results lie `step` elements apart. `first` is the output that the first of the states is of, and
// `words` are from one state to the next.
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
    {"korvex_running_sums", "segments memory n x x_stride x_format out step format", 9,
     kResidentStateBlocks, kBlockSegments},
    {"korvex_add_axes", "items first plan x x_format digits words counts", 8, kResidentAxisBlocks,
     1},
    {"korvex_multiply_axes", "items first plan x x_format y y_format sign digits words counts", 11,
     kResidentAxisBlocks, 1},
    {"korvex_add_by_ids",
     "n begin ids ids_stride ids_format plan x x_format states first count wrong", 12,
     kResidentStateBlocks, kWidenedBlockElements},
    {"korvex_round_states", "count states function elements divisor scale out step format", 9,
     kResidentStateBlocks, kRoundedBlockStates},
    {"korvex_sum_columns", "outputs plan x x_format function elements out step format", 9,
     kResidentAxisBlocks, kGridBlock},
    {"korvex_running_axes", "vectors threads memory plan x x_format out format", 8,
     kResidentStateBlocks, kBlockSegments},
};

inline constexpr int kStateKernelCount =
    static_cast<int>(sizeof kStateKernels / sizeof kStateKernels[0]);

}  // namespace korvex::kernels
