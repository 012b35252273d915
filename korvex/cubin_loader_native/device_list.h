// SPDX-License-Identifier: Apache-2.0
// The devices of the machine as its management library lists them, without the CUDA driver.
#pragma once

#include <optional>
#include <vector>

#include "korvex/cubin_loader_native/kernel_files.h"

namespace korvex::cubin_loader {

// The capability of each device that the driver manages; nothing where that is not known. It
// initialises no CUDA and leaves nothing behind, so a process may fork afterwards.
std::optional<std::vector<Capability>> list_devices();

}  // namespace korvex::cubin_loader
