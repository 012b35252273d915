// SPDX-License-Identifier: Apache-2.0
// The Python type of a kernel object, what get_kernel returns.
#pragma once

#include <memory>

#include "korvex/cpython/object.h"
#include "korvex/cubin_loader_native/launcher.h"

namespace korvex::cubin_loader {

// Makes the type, whose instances come from make_kernel alone.
Object make_kernel_type(Handle module);

// The kernel of that row of the table; it keeps the launcher alive.
Object make_kernel(const Object& type, const std::shared_ptr<Launcher>& launcher, int row);

// Lets a share in the launcher go. The last one unloads modules, which may wait for the device.
void release_launcher(std::shared_ptr<Launcher>& launcher);

}  // namespace korvex::cubin_loader
