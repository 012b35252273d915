// SPDX-License-Identifier: Apache-2.0
// Series functions: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines the circular, inverse circular and hyperbolic functions that are summed as series.
void define_series();

}  // namespace korvex
