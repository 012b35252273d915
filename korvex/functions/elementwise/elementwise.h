// SPDX-License-Identifier: Apache-2.0
// Element-wise operators: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines the element-wise operators.
void define_elementwise();

}  // namespace korvex
