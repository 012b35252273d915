// SPDX-License-Identifier: Apache-2.0
// The check of a launch against the kernel's row: what passes reads and writes inside its arrays.
#pragma once

#include "korvex/cpython/object.h"
#include "korvex/cubin_loader_native/launcher.h"

namespace korvex::cubin_loader {

// Checks the arguments of one launch and puts them into it. TypeError if their number or the kind
// of one is wrong; ValueError for a size out of range, or an array that is not contiguous or is
// shorter than the sizes say.
void take_arguments(Launch& launch, Handle const* arguments, Py_ssize_t count);

// A grid within the limits that every CUDA device has; it may have an extent of 0. A kernel that
// strides along y takes any number of blocks there, and gets the most that it can.
Extent read_grid(const KernelRow& row, Handle value);

// A block that the kernel is compiled for: its own, or as many threads as a caller may ask for.
Extent read_block(const KernelRow& row, Handle value);

}  // namespace korvex::cubin_loader
