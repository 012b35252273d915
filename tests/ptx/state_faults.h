// SPDX-License-Identifier: Apache-2.0
// Faults planted in the PTX of the kernels of exact states.
#pragma once

#include "tests/ptx/faults.h"
#include "tests/ptx/module.h"

namespace korvex::ptx {

// The module is what the text says.
FaultCount plant_faults_in_states(const launches::HostLibrary& host, const Module& module,
                                  const std::string& text, std::uint64_t seed);

}  // namespace korvex::ptx
