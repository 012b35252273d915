// SPDX-License-Identifier: Apache-2.0
// Crossing between Python and the layers below: failures as exceptions.
#pragma once

#include <exception>
#include <new>

#include "korvex/cpython/interpreter_lock.h"
#include "korvex/cpython/object.h"
#include "korvex/cubin_loader_native/failure.h"

namespace korvex::cubin_loader {

// Runs the body of a slot or method; what it throws becomes the Python exception that is set, and
// `failed` comes back. A kernel's name, if given, opens the messages from below.
template <class Value, class Body>
Value guarded(Value failed, const Body& body, const char* kernel = nullptr) {
  const auto set = [&](PyObject* type, const char* message) {
    if (kernel == nullptr) {
      PyErr_SetString(type, message);
    } else {
      PyErr_Format(type, "%s: %s", kernel, message);
    }
  };
  try {
    return body();
  } catch (const PythonError&) {
  } catch (const BadArgument& error) {
    set(PyExc_ValueError, error.what());
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {  // DeviceFailure, and the file system's errors
    set(PyExc_RuntimeError, error.what());
  }
  return failed;
}

}  // namespace korvex::cubin_loader
