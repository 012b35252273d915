// SPDX-License-Identifier: Apache-2.0
// Matrix products and running sums by the kernels of states, each by all of its launches.
#pragma once

#include <vector>

#include "tests/launches/state_case.h"

namespace korvex::launches {

// Whether a kernel is one of a product or a running sum.
bool is_of_arrays(const kernels::StateKernelRow& kernel);

std::vector<StateCase> array_cases_of(const kernels::StateKernelRow& kernel, bool is_long,
                                      std::uint64_t seed);
std::string name_of(const ArrayCase& one);

// Throws a Failure where the device writes other bits than the host library.
void run_array_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one);

}  // namespace korvex::launches
