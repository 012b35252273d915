// SPDX-License-Identifier: Apache-2.0
// The grid of a launch, from its kernel's row and the size of the device.
#include "korvex/cubin_loader_native/launch_steps.h"

#include <algorithm>

namespace korvex::cubin_loader {
namespace {

// The n of a launch; for rows with one integer parameter.
std::uint64_t element_count(const Launch& launch) {
  const ParameterList& parameters = kParameterLists[static_cast<std::size_t>(launch.kernel)];
  std::size_t position = 0;
  while (parameters.items[position].kind != ParameterKind::kInteger) {
    ++position;
  }
  return launch.values[position];
}

// Blocks beyond these do no work: there are as many as the device has room for, and as there are
// elements for.
unsigned most_blocks(const Launch& launch, const DeviceInfo& device) {
  const KernelRow& row = kKernelTable[launch.kernel];
  std::uint64_t most = ~0U;
  if (row.blocks_per_multiprocessor != 0) {
    most = std::uint64_t{row.blocks_per_multiprocessor} *
           static_cast<std::uint64_t>(device.multiprocessors);
  }
  if (row.elements_per_block != 0) {
    const std::uint64_t full = element_count(launch) / row.elements_per_block;
    most = std::min(most, element_count(launch) % row.elements_per_block != 0 ? full + 1 : full);
  }
  return static_cast<unsigned>(std::max<std::uint64_t>(most, 1));
}

}  // namespace

Step step_of(const Launch& launch, const DeviceInfo& device) {
  const KernelRow& row = kKernelTable[launch.kernel];
  Step step{row.name, row.workspace, launch.grid, launch.block};
  if (launch.limits_grid) {
    step.grid[0] = std::min(step.grid[0], most_blocks(launch, device));
  }
  return step;
}

}  // namespace korvex::cubin_loader
