// SPDX-License-Identifier: Apache-2.0
// The kernels that korvex.exact launches, as one list: those of exact states, and those of table.h
// that make one double of each.
#pragma once

#include <array>
#include <limits>
#include <string_view>

#include "korvex/kernels/states.h"
#include "korvex/kernels/table.h"

namespace korvex::exact_cuda {

// Which files hold a kernel: korvex.exact's own, or those of the kernel loader.
enum class KernelFolder : int { kStates, kTable };
inline constexpr int kKernelFolders = 2;

struct LaunchRow {
  const char* name;
  const char* parameters;  // in the order of the arguments, separated by one space
  int parameter_count;
  KernelFolder folder;
  unsigned threads;  // of a block
  // The argument that counts what there is to do, and how much of that is a block's. 0: one block.
  int counting_argument;
  unsigned per_block;
  // Blocks of a launch at most, for each multiprocessor and in all.
  unsigned most_for_multiprocessor;
  unsigned most;
};

constexpr LaunchRow row_of_state_kernel(const kernels::StateKernelRow& row) {
  return {row.name,
          row.parameters,
          row.parameter_count,
          KernelFolder::kStates,
          kernels::kGridBlock,
          0,
          row.elements_per_block,
          row.blocks_per_multiprocessor,
          kernels::kMostStateBlocks};
}

constexpr std::string_view kMapParameters = "x:f64[n] out:f64[n] n:i64";

constexpr bool is_map(const kernels::KernelRow& row) {
  return row.block == kernels::kElementBlock && kMapParameters == row.parameters;
}

// A thread for each element, as the kernel loader's callers ask for.
constexpr LaunchRow row_of_map(const kernels::KernelRow& row) {
  constexpr unsigned kMostBlocks = std::numeric_limits<int>::max();  // along x, of any device
  return {row.name, row.parameters, 3,           KernelFolder::kTable, row.block,
          2,        row.block,      kMostBlocks, kMostBlocks};
}

constexpr int count_maps() {
  int count = 0;
  for (const kernels::KernelRow& row : kernels::kKernelTable) {
    count += is_map(row) ? 1 : 0;
  }
  return count;
}

constexpr auto make_launch_rows() {
  std::array<LaunchRow, kernels::kStateKernelCount + count_maps()> rows{};
  std::size_t next = 0;
  for (const kernels::StateKernelRow& row : kernels::kStateKernels) {
    rows[next++] = row_of_state_kernel(row);
  }
  for (const kernels::KernelRow& row : kernels::kKernelTable) {
    if (is_map(row)) {
      rows[next++] = row_of_map(row);
    }
  }
  return rows;
}

inline constexpr auto kLaunchRows = make_launch_rows();

}  // namespace korvex::exact_cuda
