// SPDX-License-Identifier: Apache-2.0
// One launch of one kernel on drawn data, on the machine and on the host: the same bits.
#pragma once

#include <cstdint>
#include <vector>

#include "korvex/kernels/table.h"
#include "tests/launches/launch_case.h"
#include "tests/ptx/machine.h"

namespace korvex::ptx {

using launches::Case;
using launches::Data;
using launches::HostLibrary;

// Throws a Failure that names the case.
void run_case(Machine& machine, const HostLibrary& host, const Case& one);

// All cases of one kernel.
std::vector<Case> cases_of(const launches::Subject& subject, bool is_long, std::uint64_t seed);

}  // namespace korvex::ptx
