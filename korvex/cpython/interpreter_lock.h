// SPDX-License-Identifier: Apache-2.0
// Work that needs no Python object, with the interpreter's lock released.
#pragma once

#include <cxxabi.h>
#include <unistd.h>

#include "korvex/cpython/object.h"

namespace korvex {

// Precondition: the work touches no Python object, and throws nothing that wraps one.
template <class Work>
auto without_lock(const Work& work) {
  struct Release {
    PyThreadState* state = PyEval_SaveThread();
    // While it shuts down, an interpreter before 3.14 ends the daemon thread that asks for its lock
    // by unwinding it. The frames above hold references and may not give them back without the
    // lock, so the thread waits here for the end of the process, as later interpreters let it do.
    ~Release() noexcept(false) {
      try {
        PyEval_RestoreThread(state);
      } catch (const abi::__forced_unwind&) {
        for (;;) {
          pause();
        }
      }
    }
  };
  const Release release;
  return work();
}

}  // namespace korvex
