// SPDX-License-Identifier: Apache-2.0
// Limb values: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines TQXResult, the value type of the system.
void define_limb_result();

// Defines the error-free transforms and the addition of limb lists.
void define_limb_algebra();

}  // namespace korvex
