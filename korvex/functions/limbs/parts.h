// SPDX-License-Identifier: Apache-2.0
// The parts of the limb functions, each defined by its own file.
#pragma once

namespace korvex {

void define_error_free_transforms();
void define_limb_operands();

}  // namespace korvex
