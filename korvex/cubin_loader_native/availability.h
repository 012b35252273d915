// SPDX-License-Identifier: Apache-2.0
// Whether kernels can be launched, as far as that is known before the driver is initialised.
//
// Importing the module must leave the driver alone, as a process that forks later cannot use a
// driver that was initialised before. So only what is certain counts here: whatever can still work
// is tried by NativeCubinLoader(), which then says what was missing.
#pragma once

#include <string>

#include "korvex/cubin_loader_native/kernel_files.h"

namespace korvex::cubin_loader {

// Why no kernel can be launched in this process; empty if no reason is known.
std::string why_unavailable(const KernelFiles& files);

}  // namespace korvex::cubin_loader
