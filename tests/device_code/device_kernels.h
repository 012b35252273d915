// SPDX-License-Identifier: Apache-2.0
// The kernels of korvex/kernels/device as a host calls them, and their static memory.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace korvex::test {

struct DeviceKernel {
  std::string_view name;
  void (*call)(void* const* arguments);  // pointers to the values, as for a launch
};

std::span<const DeviceKernel> device_kernels();
std::span<const DeviceKernel> state_kernels();  // of korvex/kernels/states.h, in its order

// Static memory of the device code.
struct Workspace {
  std::string_view name;
  void* memory;
  std::size_t bytes;
};

std::span<const Workspace> device_workspaces();

}  // namespace korvex::test
