// SPDX-License-Identifier: Apache-2.0
// The launches of every kernel on the simulated grid.
#pragma once

#include <string>
#include <vector>

#include "tests/launches/launch_case.h"

namespace korvex::test {

// In an order in which the first ones already touch every shape and every border.
std::vector<launches::Case> grid_cases_of(const launches::Subject& subject, bool is_long,
                                          std::uint64_t seed);

// Launches with blocks that the kernel cannot work with.
std::vector<launches::Case> trapping_cases_of(const launches::Subject& subject, std::uint64_t seed);

// Which shapes of blocks, sizes and places of arrays no case has; empty where there are all.
std::string what_is_missing(const launches::Subject& subject,
                            const std::vector<launches::Case>& cases);

}  // namespace korvex::test
