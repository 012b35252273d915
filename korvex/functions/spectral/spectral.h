// SPDX-License-Identifier: Apache-2.0
// Spectral transforms: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines the radix-2 transform and the public transforms around it.
void define_spectral();

}  // namespace korvex
