// SPDX-License-Identifier: Apache-2.0
// How an extension module begins: with the interpreter that it was compiled for, or not at all.
//
// A free-threaded CPython lays out its objects in another way, and our modules borrow references
// and keep state that only the global interpreter lock protects. Such interpreters are refused when
// a module is compiled for one, and when one that has no fitting module is made to load this one.
#pragma once

#include <Python.h>

#include <cstring>

#ifdef Py_GIL_DISABLED
#error "korvex needs CPython with its global interpreter lock, not a free-threaded build"
#endif

namespace korvex {

// As in korvex/__init__.py, which comes first unless a module is loaded by itself.
inline constexpr char kFreeThreaded[] =
    "korvex needs CPython with its global interpreter lock, and this is a free-threaded build: use "
    "the interpreter whose name does not end in t.";

// Touches no object of the interpreter before it is known to be a fitting one: "3.13.0 experimental
// free-threading build (main, ...", and from 3.14 on "3.14.0 free-threading build (main, ...".
inline PyObject* init_module(PyModuleDef* definition) {
  if (std::strstr(Py_GetVersion(), "free-threading build") != nullptr) {
    PyErr_SetString(PyExc_ImportError, kFreeThreaded);
    return nullptr;
  }
  return PyModuleDef_Init(definition);
}

}  // namespace korvex
