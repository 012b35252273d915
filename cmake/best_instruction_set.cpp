// SPDX-License-Identifier: Apache-2.0
// Prints the best instruction set of this processor, for CMake.
#include <cstdio>

#include "korvex/kernels/processor.h"

int main() { std::fputs(korvex::kernels::best_instruction_set(), stdout); }
