// SPDX-License-Identifier: Apache-2.0
// The host library that computes: opened once, the best for this processor unless another is asked
// for.
#pragma once

#include "korvex/cpython/object.h"
#include "korvex/kernels/host/exact.h"

namespace korvex::exact {

// Opens the best library, at the first call. ImportError where that fails.
void open_host_library();

// Its functions. Precondition: open_host_library() has returned.
const korvex_exact_functions& host();

// "base", "fma" or "avx512": the one in use.
const char* instruction_set();

// Uses another one from now on. ValueError where this processor does not run it.
void set_instruction_set(Handle name);

}  // namespace korvex::exact
