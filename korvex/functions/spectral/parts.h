// SPDX-License-Identifier: Apache-2.0
// The parts of the spectral transforms, each defined by its own file.
#pragma once

namespace korvex {

void define_butterfly();
void define_transforms();

}  // namespace korvex
