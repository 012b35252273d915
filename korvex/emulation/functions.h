// SPDX-License-Identifier: Apache-2.0
// The names of the module korvex.emulation._native, by what they make.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex::emulation {

PyMethodDef* torch_functions();
PyMethodDef* short_ways();
void add_kinds(const Object& module);  // of operations whose values are replaced

}  // namespace korvex::emulation
