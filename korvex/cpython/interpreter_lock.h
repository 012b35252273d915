// SPDX-License-Identifier: Apache-2.0
// Work that needs no Python object, with the interpreter's lock released.
#pragma once

#include <unistd.h>

#include "korvex/cpython/object.h"

namespace korvex {

// Precondition: the work touches no Python object, and throws nothing that wraps one.
template <class Work>
auto without_lock(const Work& work) {
  // While it shuts down, an interpreter before 3.14 ends the daemon thread that asks for its lock
  // by unwinding it. The frames above hold references and may not give them back without the lock,
  // so the thread waits here for the end of the process, as later interpreters let it do. A
  // destructor runs then in every C++ runtime; only some let a handler see such an end.
  struct EndOfThread {
    bool ahead = true;
    ~EndOfThread() {
      while (ahead) {
        pause();
      }
    }
  };
  struct Release {
    PyThreadState* state = PyEval_SaveThread();
    ~Release() noexcept(false) {
      EndOfThread end;
      PyEval_RestoreThread(state);
      end.ahead = false;
    }
  };
  const Release release;
  return work();
}

}  // namespace korvex
