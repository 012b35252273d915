// SPDX-License-Identifier: Apache-2.0
// Whole-tensor reductions: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines the reductions and their decimal forms.
void define_reductions();

}  // namespace korvex
