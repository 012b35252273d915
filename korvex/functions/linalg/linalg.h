// SPDX-License-Identifier: Apache-2.0
// Linear algebra: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines matrix products, convolutions and solvers.
void define_linalg();

// Defines contractions and the loss, which stand last among the tensor functions.
void define_contractions();

}  // namespace korvex
