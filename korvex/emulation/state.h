// SPDX-License-Identifier: Apache-2.0
// Functions of C that hold Python objects: each is bound to a tuple, which keeps its objects alive
// and which the garbage collector sees. So nothing here is global, and each interpreter has its
// own.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex::emulation {

// A function over objects, in this order.
template <typename... Objects>
Object bound(PyMethodDef* row, const Objects&... objects) {
  const Object state = tuple(objects...);
  return checked(PyCFunction_New(row, state));
}

inline Handle held(Handle state, Py_ssize_t place) { return PyTuple_GET_ITEM(state, place); }

inline bool has_type(Handle value, Handle type) {
  return reinterpret_cast<PyObject*>(Py_TYPE(value)) == type;
}

}  // namespace korvex::emulation
