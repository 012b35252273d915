// SPDX-License-Identifier: Apache-2.0
// Work that needs no Python object, with the interpreter's lock released.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex {

// Precondition: the work touches no Python object, and throws nothing that wraps one.
template <class Work>
auto without_lock(const Work& work) {
  struct Release {
    PyThreadState* state = PyEval_SaveThread();
    // Ends the thread by unwinding it if the interpreter is shutting down.
    ~Release() noexcept(false) { PyEval_RestoreThread(state); }
  };
  const Release release;
  return work();
}

}  // namespace korvex
