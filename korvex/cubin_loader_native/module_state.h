// SPDX-License-Identifier: Apache-2.0
// What the module object keeps for its types.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex::cubin_loader {

struct ModuleState {
  Object kernel_type;
};

}  // namespace korvex::cubin_loader
