// SPDX-License-Identifier: Apache-2.0
// Calls from Python: arguments by position or keyword put in their places.
#pragma once

#include <array>
#include <cstddef>

#include "korvex/cpython/c_function.h"
#include "korvex/cpython/object.h"
#include "korvex/exact/messages.h"

namespace korvex::exact {

// The parameters of a function: names, of which the first `required` must be given.
template <std::size_t kCount>
struct Parameters {
  const char* function;
  std::array<const char*, kCount> names;
  std::size_t required;
};

// The values of a vectorcall in the order of the parameters; null where one is not given.
template <std::size_t kCount>
std::array<Handle, kCount> bind(const Parameters<kCount>& parameters, PyObject* const* values,
                                Py_ssize_t positional, Handle keywords) {
  if (static_cast<std::size_t>(positional) > kCount) {
    raise_formatted(PyExc_TypeError, messages::kTooMany, parameters.function,
                    static_cast<Py_ssize_t>(kCount), positional);
  }
  std::array<Handle, kCount> bound{};
  for (Py_ssize_t i = 0; i < positional; ++i) {
    bound[static_cast<std::size_t>(i)] = values[i];
  }
  const Py_ssize_t keyword_count = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
  for (Py_ssize_t i = 0; i < keyword_count; ++i) {
    const Handle name = PyTuple_GET_ITEM(keywords, i);
    std::size_t place = 0;
    while (place < kCount && PyUnicode_CompareWithASCIIString(name, parameters.names[place]) != 0) {
      ++place;
    }
    if (place == kCount) {
      raise_formatted(PyExc_TypeError, messages::kUnknown, parameters.function, name);
    }
    if (bound[place] != nullptr) {
      raise_formatted(PyExc_TypeError, messages::kTwice, parameters.function,
                      parameters.names[place]);
    }
    bound[place] = values[positional + i];
  }
  for (std::size_t i = 0; i < parameters.required; ++i) {
    if (bound[i] == nullptr) {
      raise_formatted(PyExc_TypeError, messages::kMissing, parameters.function,
                      parameters.names[i]);
    }
  }
  return bound;
}

}  // namespace korvex::exact
