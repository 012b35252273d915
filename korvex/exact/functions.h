// SPDX-License-Identifier: Apache-2.0
// The functions of korvex.exact._native.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex::exact {

// Rows for PyModuleDef, up to one with null names.
PyMethodDef* state_functions();    // states.cpp
PyMethodDef* array_functions();    // arrays.cpp
PyMethodDef* segment_functions();  // segments.cpp

}  // namespace korvex::exact
