// SPDX-License-Identifier: Apache-2.0
// Functions of a module that the interpreter calls as they are: their rows, failures as exceptions.
#pragma once

#include <exception>
#include <new>

#include "korvex/cpython/object.h"

namespace korvex {

using Vectorcall = PyObject*(PyObject*, PyObject* const*, Py_ssize_t, PyObject*);

// A row of a table of functions.
inline PyMethodDef method_row(const char* name, Vectorcall* function, const char* doc) noexcept {
  // The interpreter casts it back, as the flags say.
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)),
          METH_FASTCALL | METH_KEYWORDS, doc};
}

// Runs the body of a function; what it throws becomes the Python exception that is set.
template <class Body>
PyObject* guarded(const Body& body) {
  try {
    return body().release();
  } catch (const PythonError&) {
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
  return nullptr;
}

}  // namespace korvex
