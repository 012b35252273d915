// SPDX-License-Identifier: Apache-2.0
// What the process remembers of the one module: its object, its dict, constants, the callable type.
#pragma once

#include <vector>

#include "korvex/cpython/object.h"

namespace korvex {

// Under this name the module stands in sys.modules, whatever it was imported as.
inline constexpr char kModuleName[] = "korvex.tqx_runtime";

// Written while the module is imported, only read afterwards.
struct ModuleState {
  std::vector<Object> constants;
  Object function_type;
  Object module;    // the remembered module; empty before the exec step and after one that failed
  Object globals;   // its dict
  Object builtins;  // dict of the module builtins; a calling frame may have others of its own
};

// The state of this process. It is made by the first exec step and never destroyed: its objects
// must not be released after the interpreter is gone.
ModuleState& module_state();

}  // namespace korvex
