// SPDX-License-Identifier: Apache-2.0
// What torch calls for an operation on a tensor of the emulated device.
//
// Nearly all such calls have nothing to check beyond the types of their operands, and a program
// makes many: they are done here, by a function that stands for the operation as long as torch sees
// host tensors. All others go the whole way, to the rules in Python.
#include <span>

#include "korvex/cpython/c_function.h"
#include "korvex/emulation/functions.h"
#include "korvex/emulation/state.h"

namespace korvex::emulation {
namespace {

// ---- adoption ----

enum AdoptingState : Py_ssize_t { kTensor, kHostTensor, kClassName };

void adopt(Handle state, Handle value);

// Lists may hold themselves; then the depth of calls ends it, as in Python.
void adopt_items(Handle state, Handle value) {
  if (Py_EnterRecursiveCall(" while adopting a tensor") != 0) {
    throw PythonError{};
  }
  struct Leave {
    ~Leave() { Py_LeaveRecursiveCall(); }
  };
  const Leave leave;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(value); ++i) {
    const Object item = object(PySequence_Fast_GET_ITEM(value, i));
    adopt(state, item);
  }
}

void adopt(Handle state, Handle value) {
  if (has_type(value, held(state, kHostTensor))) {
    set_attribute(value, held(state, kClassName), held(state, kTensor));
  } else if (PyTuple_Check(value) || PyList_Check(value)) {
    adopt_items(state, value);
  }
}

PyObject* adopt_function(PyObject* state, PyObject* value) {
  return guarded([&] {
    adopt(state, value);
    return object(value);
  });
}

PyMethodDef adopt_row = {
    "adopt", adopt_function, METH_O,
    "adopt(value, /)\n--\n\n"
    "Make the plain tensors in a result, one by one in place, tensors of the emulated device."};

PyObject* adopter_function(PyObject*, PyObject* arguments) {
  return guarded([&] {
    PyObject* tensor = nullptr;
    PyObject* host_tensor = nullptr;
    if (PyArg_ParseTuple(arguments, "O!O!:adopter", &PyType_Type, &tensor, &PyType_Type,
                         &host_tensor) == 0) {
      throw PythonError{};
    }
    return bound(&adopt_row, tensor, host_tensor, interned("__class__"));
  });
}

// ---- operations ----

enum OperationState : Py_ssize_t { kShortWays, kCallAsHost, kWholeWay, kAdopting, kPlainTypes };

std::span<PyObject* const> items_of(Handle list_or_tuple) {
  return {PySequence_Fast_ITEMS(list_or_tuple),
          static_cast<std::size_t>(PySequence_Fast_GET_SIZE(list_or_tuple))};
}

bool is_plain(Handle plain_types, Handle value) {
  for (const Handle type : items_of(plain_types)) {
    if (has_type(value, type)) {
      return true;
    }
  }
  return false;
}

// A plain operand, or a list or tuple of such.
bool is_plain_operand(Handle plain_types, Handle value) {
  if (is_plain(plain_types, value)) {
    return true;
  }
  if (!PyList_CheckExact(value) && !PyTuple_CheckExact(value)) {
    return false;
  }
  for (const Handle item : items_of(value)) {
    if (!is_plain(plain_types, item)) {
      return false;
    }
  }
  return true;
}

bool are_plain(Handle plain_types, Handle arguments, Handle keywords) {
  for (const Handle value : items_of(arguments)) {
    if (!is_plain_operand(plain_types, value)) {
      return false;
    }
  }
  PyObject* value = nullptr;
  Py_ssize_t place = 0;
  while (keywords != nullptr && PyDict_Next(keywords, &place, nullptr, &value) != 0) {
    if (!is_plain_operand(plain_types, value)) {
      return false;
    }
  }
  return true;
}

// The function that stands for an operation here; empty if there is none. The caller owns it, since
// another thread may take it out of the dict.
Object short_way(Handle short_ways, Handle operation) {
  const Handle found = PyDict_GetItemWithError(short_ways, operation);
  if (found == nullptr && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return object(found);
}

// Goes a way while torch takes the tensors for host tensors, without keywords where they are null;
// an empty object where it leads nowhere.
Object go(Handle state, Handle way, Handle operation, Handle types, Handle arguments,
          Handle keywords) {
  const Object call_as_host = object(held(state, kCallAsHost));
  Object result = keywords == nullptr ? call_as_host.call(way, types, arguments)
                                      : call_as_host.call(way, types, arguments, keywords);
  // An operation of torch may answer so itself, and that is then its result.
  if (result == Py_NotImplemented && way != operation) {
    return {};
  }
  adopt(held(state, kAdopting), result);
  return result;
}

// The result where the short way leads to one, else an empty object.
Object try_short_way(Handle state, Handle operation, Handle types, Handle arguments,
                     Handle keywords) {
  const Object way = short_way(held(state, kShortWays), operation);
  if (way.empty() || !are_plain(held(state, kPlainTypes), arguments, keywords)) {
    return {};
  }
  return go(state, way, operation, types, arguments, keywords);
}

// __torch_function__(func, types, args=(), kwargs=None). Not a method: it needs no class, and
// torch, which looks it up for each call, gets it without a bound method being made.
PyObject* torch_function(PyObject* state, PyObject* const* values, Py_ssize_t count,
                         PyObject* keyword_names) {
  return guarded([&] {
    const bool has_arguments = count >= 3 && PyTuple_CheckExact(values[2]);
    Handle keywords = count == 4 && !Py_IsNone(values[3]) ? values[3] : nullptr;
    const bool has_keywords = keywords != nullptr && PyDict_CheckExact(keywords);
    if (keyword_names == nullptr && has_arguments && count <= 4 &&
        (keywords == nullptr || has_keywords)) {
      Object result = try_short_way(state, values[0], values[1], values[2], keywords);
      if (!result.empty()) {
        return result;
      }
    }
    return checked(PyObject_Vectorcall(held(state, kWholeWay), values,
                                       static_cast<std::size_t>(count), keyword_names));
  });
}

PyMethodDef operation_row =
    method_row("__torch_function__", torch_function,
               "__torch_function__(func, types, args=(), kwargs=None)\n--\n\n"
               "Do an operation of torch that has an operand on the emulated device.");

PyObject* torch_function_function(PyObject*, PyObject* arguments) {
  return guarded([&] {
    PyObject* short_ways = nullptr;
    PyObject* call_as_host = nullptr;
    PyObject* whole_way = nullptr;
    PyObject* adopt = nullptr;
    PyObject* plain_types = nullptr;
    if (PyArg_ParseTuple(arguments, "O!OOO!O!:torch_function", &PyDict_Type, &short_ways,
                         &call_as_host, &whole_way, &PyCFunction_Type, &adopt, &PyTuple_Type,
                         &plain_types) == 0) {
      throw PythonError{};
    }
    if (PyCFunction_GET_FUNCTION(adopt) != adopt_function) {
      raise(PyExc_TypeError, "torch_function() takes what adopter() made");
    }
    return bound(&operation_row, short_ways, call_as_host, whole_way, PyCFunction_GET_SELF(adopt),
                 plain_types);
  });
}

PyMethodDef rows[] = {
    {"adopter", adopter_function, METH_VARARGS,
     "adopter(tensor, host_tensor): a function that changes the class of tensors in a result."},
    {"torch_function", torch_function_function, METH_VARARGS,
     "torch_function(short_ways, call_as_host, whole_way, adopt, plain_types): "
     "__torch_function__."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* torch_functions() { return rows; }

}  // namespace korvex::emulation
