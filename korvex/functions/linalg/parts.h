// SPDX-License-Identifier: Apache-2.0
// The parts of the linear algebra, each defined by its own file.
#pragma once

namespace korvex {

void define_matrix_product();
void define_general_product();
void define_convolutions();
void define_solvers();

}  // namespace korvex
