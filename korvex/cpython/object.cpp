// SPDX-License-Identifier: Apache-2.0
// The object operations that are too long for their header.
#include "korvex/cpython/object.h"

#include "korvex/cpython/messages.h"

namespace korvex {

bool has_attribute(Handle a, Handle name) {
  const Object value = Object::steal(PyObject_GetAttr(a, name));
  if (!value.empty()) {
    return true;
  }
  if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) {
    throw PythonError{};
  }
  PyErr_Clear();
  return false;
}

void unpack_into(Handle iterable, std::span<Object> items) {
  const Object iterator = checked(PyObject_GetIter(iterable));
  Py_ssize_t taken = 0;
  for (Object& item : items) {
    item = next_item(iterator);
    if (item.empty()) {
      raise_formatted(PyExc_ValueError, messages::kTooFewValues, taken, taken == 1 ? "" : "s");
    }
    ++taken;
  }
  if (next_item(iterator).empty()) {
    return;
  }
  raise_formatted(PyExc_ValueError, messages::kTooManyValues, taken);
}

Object joined(const Object& pieces) {
  const Object separator = text("");
  return checked(PyUnicode_Join(separator, pieces));
}

void raise(Handle type, const char* message) {
  PyErr_SetString(type, message);
  throw PythonError{};
}

}  // namespace korvex
