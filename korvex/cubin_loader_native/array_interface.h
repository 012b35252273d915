// SPDX-License-Identifier: Apache-2.0
// An array argument read through __cuda_array_interface__, which cupy arrays and many others have.
#pragma once

#include "korvex/cpython/object.h"
#include "korvex/cubin_loader_native/launcher.h"

namespace korvex::cubin_loader {

// The array behind a Python object. TypeError if it is no CUDA array of float64, ValueError if it
// is not contiguous or not aligned. The driver says later which device it is on.
ArrayArgument read_array(const char* kernel, const Parameter& parameter, Handle value);

}  // namespace korvex::cubin_loader
