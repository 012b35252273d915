// SPDX-License-Identifier: Apache-2.0
// Launches over the whole device that may stand for the launch of a kernel by one thread or one
// block: which kernels they are, in which order, and how many blocks each.
//
// A result is defined by exact mathematics, so it does not show how many threads have worked on it.
// A loader makes these launches where its user asks for that. Callers name the kernel that they
// stand for; the kernels named here are the loader's own and no rows of kKernelTable.
#pragma once

#include "korvex/kernels/table.h"

namespace korvex::kernels {

// Elements for each block of kernels that take them one by one.
inline constexpr unsigned kSingleElementsOfBlock = 4 * kGridBlock;

// The kernel has blocks of kGridBlock threads and the parameters of the one that it stands for.
struct WholeDeviceLaunch {
  const char* kernel;
  unsigned blocks_per_multiprocessor;  // as in KernelRow
  unsigned elements_per_block;         // likewise; one block where there are no more elements
  const char* workspace = nullptr;     // likewise
};

inline constexpr int kMostWholeDeviceLaunches = 3;

struct WholeDeviceRow {
  const char* kernel;  // a row of kKernelTable
  int launch_count;
  // One after another on one stream: what one leaves in static memory, the next finds there.
  WholeDeviceLaunch launches[kMostWholeDeviceLaunches];
};

inline constexpr WholeDeviceRow kWholeDeviceTable[] = {
    {"tqx_sum_seq_kernel",
     1,
     {{"tqx_sum_device_kernel", kResidentSumBlocks, kSumBlockElements, "sum_grid_memory"}}},
    {"tqx_dot_seq_kernel",
     1,
     {{"tqx_dot_device_kernel", kResidentDotBlocks, kDotBlockElements, "dot_grid_memory"}}},
    {"tqx_var_kernel",
     2,
     {{"tqx_var_device_sum_kernel", kResidentSumBlocks, kSumBlockElements, "sum_grid_memory"},
      {"tqx_var_device_kernel", kResidentDotBlocks, kDotBlockElements, "dot_grid_memory"}}},
    {"tqx_norm_kernel",
     1,
     {{"tqx_norm_device_kernel", kResidentDotBlocks, kDotBlockElements, "dot_grid_memory"}}},
    {"tqx_prod_kernel",
     1,
     {{"tqx_prod_device_kernel", 4, kSingleElementsOfBlock, "prod_grid_memory"}}},
    {"tqx_cumsum_kernel",
     2,
     {{"tqx_cumsum_device_sum_kernel", kResidentSumBlocks, kSumBlockElements},
      {"tqx_cumsum_device_kernel", kResidentSumBlocks, kSumBlockElements}}},
    {"tqx_logsumexp_kernel",
     3,
     {{"tqx_logsumexp_device_largest_kernel", 4, kSingleElementsOfBlock, "logsumexp_grid_memory"},
      {"tqx_logsumexp_device_sum_kernel", kResidentElementaryBlocks, kSingleElementsOfBlock,
       "logsumexp_grid_memory"},
      {"tqx_logsumexp_device_kernel", kResidentElementaryBlocks, kSingleElementsOfBlock,
       "logsumexp_grid_memory"}}},
    {"tqx_rms_norm_kernel",
     2,
     {{"tqx_rms_norm_device_root_kernel", kResidentDotBlocks, kDotBlockElements, "dot_grid_memory"},
      {"tqx_rms_norm_device_kernel", 8, kSingleElementsOfBlock}}},
};

}  // namespace korvex::kernels
