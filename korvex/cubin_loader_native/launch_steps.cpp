// SPDX-License-Identifier: Apache-2.0
// The grids of a launch, from its kernel's row and the size of the device.
#include "korvex/cubin_loader_native/launch_steps.h"

#include <algorithm>

namespace korvex::cubin_loader {
namespace {

using kernels::WholeDeviceLaunch;
using kernels::WholeDeviceRow;

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
// elements for. Row: a KernelRow or a WholeDeviceLaunch.
template <class Row>
unsigned most_blocks(const Launch& launch, const Row& row, const DeviceInfo& device) {
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

// Null where nothing stands for the kernel.
const WholeDeviceRow* whole_device_row(const char* kernel) {
  const auto* const row = std::ranges::find_if(
      kernels::kWholeDeviceTable,
      [&](const WholeDeviceRow& each) { return std::string_view(each.kernel) == kernel; });
  return row == std::end(kernels::kWholeDeviceTable) ? nullptr : row;
}

Step step_as_asked(const Launch& launch, const DeviceInfo& device) {
  const KernelRow& row = kKernelTable[launch.kernel];
  Step step{row.name, row.workspace, launch.grid, launch.block};
  if (launch.limits_grid) {
    step.grid[0] = std::min(step.grid[0], most_blocks(launch, row, device));
  }
  return step;
}

}  // namespace

std::optional<LaunchChoice> read_choice(std::string_view word) {
  if (word == "as-asked") {
    return LaunchChoice::kAsAsked;
  }
  if (word == "device") {
    return LaunchChoice::kDevice;
  }
  return {};
}

Steps steps_of(const Launch& launch, const DeviceInfo& device, LaunchChoice choice) {
  Steps steps;
  const WholeDeviceRow* row = choice == LaunchChoice::kDevice
                                  ? whole_device_row(kKernelTable[launch.kernel].name)
                                  : nullptr;
  if (row == nullptr) {
    steps.items[steps.count++] = step_as_asked(launch, device);
    return steps;
  }
  for (int i = 0; i < row->launch_count; ++i) {
    const WholeDeviceLaunch& each = row->launches[i];
    steps.items[steps.count++] = {each.kernel,
                                  each.workspace,
                                  {most_blocks(launch, each, device), 1, 1},
                                  {kernels::kGridBlock, 1, 1}};
  }
  return steps;
}

}  // namespace korvex::cubin_loader
