// SPDX-License-Identifier: Apache-2.0
// The module's dict as function bodies see it.
//
// Bodies look up torch, cp, _NATIVE_LOADER and each other in the module's dict at every use, as
// Python code does, so a program or a test can replace any of them.
#pragma once

#include "korvex/runtime/names.h"

namespace korvex {

// The value of a global name: the module's dict first, then the builtins, else NameError.
Object global(Handle name);

// torch.name
inline Object torch_member(Handle name) { return global("torch"_name).get(name); }

}  // namespace korvex
