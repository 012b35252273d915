// SPDX-License-Identifier: Apache-2.0
// What a launch becomes for the driver: the kernel, its grid and block, and the memory it needs.
#pragma once

#include "korvex/cubin_loader_native/device_kernels.h"
#include "korvex/cubin_loader_native/launch.h"

namespace korvex::cubin_loader {

struct Step {
  const char* kernel;     // its name in the file
  const char* workspace;  // static memory to be cleared before; null: none
  Extent grid;
  Extent block;
};

// The launch on a device: the grid that was asked for, without blocks that would do no work where
// the launch limits its grid.
Step step_of(const Launch& launch, const DeviceInfo& device);

}  // namespace korvex::cubin_loader
