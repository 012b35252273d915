// SPDX-License-Identifier: Apache-2.0
// The launches of every kernel on the simulated grid.
#pragma once

#include <vector>

#include "tests/launches/launch_case.h"

namespace korvex::test {

// In an order in which the first ones already touch every shape and every border.
std::vector<launches::Case> grid_cases_of(const launches::Subject& subject, bool is_long,
                                          std::uint64_t seed);

}  // namespace korvex::test
