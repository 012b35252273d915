// SPDX-License-Identifier: Apache-2.0
// The lookup of a global name.
#include "korvex/runtime/globals.h"

#include "korvex/runtime/module_state.h"

namespace korvex {

Object global(Handle name) {
  const Object& globals = module_state().globals;
  const Handle own = PyDict_GetItemWithError(globals, name);
  if (own != nullptr) {
    return Object::borrow(own);
  }
  if (PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  const Handle builtin = PyDict_GetItemWithError(module_state().builtins, name);
  if (builtin != nullptr) {
    return Object::borrow(builtin);
  }
  if (PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  raise_formatted(PyExc_NameError, "name '%U' is not defined", name);
}

}  // namespace korvex
