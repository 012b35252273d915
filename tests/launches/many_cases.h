// SPDX-License-Identifier: Apache-2.0
// Reductions along dimensions and sums by segment by the kernels of states, each by all of its
// launches, which are those of korvex.exact.
#pragma once

#include <string>
#include <vector>

#include "tests/launches/state_case.h"

namespace korvex::launches {

// Whether a kernel is one of many states.
bool is_of_many(const kernels::StateKernelRow& kernel);

std::vector<StateCase> many_cases_of(const kernels::StateKernelRow& kernel, bool is_long,
                                     std::uint64_t seed);
std::string name_of(const ManyCase& one);

// Throws a Failure where the device writes other bits than the host library.
void run_many_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one);

}  // namespace korvex::launches
