// SPDX-License-Identifier: Apache-2.0
// Faults planted in the text of the PTX, one at a time: the machine must notice each.
#pragma once

#include <cstdint>
#include <string>

#include "tests/launches/host_library.h"
#include "tests/ptx/machine.h"

namespace korvex::ptx {

struct FaultCount {
  int planted = 0;
  int noticed = 0;
  Figures figures;  // of all launches
};

// Prints what each fault was noticed by. A fault that is not planted in exactly one place, or is
// noticed by another message than expected, counts as planted and not noticed.
FaultCount plant_faults(const launches::HostLibrary& host, const std::string& text,
                        std::uint64_t seed);

}  // namespace korvex::ptx
