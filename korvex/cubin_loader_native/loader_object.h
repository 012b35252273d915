// SPDX-License-Identifier: Apache-2.0
// The Python type NativeCubinLoader.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex::cubin_loader {

// Makes the type. Its instances take the kernel type from the module's state.
Object make_loader_type(Handle module);

}  // namespace korvex::cubin_loader
