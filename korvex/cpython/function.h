// SPDX-License-Identifier: Apache-2.0
// The callable type of every function and method of the module.
//
// A function is made from one table row. It behaves as a Python function does where programs look:
// it binds as a method, pickles and copies by name, carries writable attributes, and serves
// inspect.signature and help. Its type has no vectorcall flag on purpose: with one, the interpreter
// itself would refuse non-string keywords, in a text that does not name the function.
#pragma once

#include "korvex/cpython/signature.h"

namespace korvex {

// Where a function lives: its globals are the module's dict; owner is the class name of a method,
// or null for a module-level function.
struct FunctionHome {
  Handle module_name;
  Handle globals;
  const char* owner = nullptr;
};

// Makes the callable type; one is enough for a module.
Object make_function_type();

Object make_function(const Object& function_type, const Signature& row, const FunctionHome& home);

}  // namespace korvex
