// SPDX-License-Identifier: Apache-2.0
// The parts of the series functions, each defined by its own file.
#pragma once

namespace korvex {

void define_circular();
void define_inverse_circular();
void define_atan2();
void define_hyperbolic();

}  // namespace korvex
