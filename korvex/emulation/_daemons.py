# SPDX-License-Identifier: Apache-2.0
"""Long calls of daemon threads, which may still run when the interpreter shuts down.

A thread that comes back from C then is ended by CPython (before 3.14) where it asks for the
interpreter's lock, by `pthread_exit`, which unwinds its stack. Above a launch there are frames of
`korvex.tqx_runtime`, in C++: unwound from outside, their destructors would give back references
without the lock.
So a daemon thread leaves the call to a thread of its own, which has frames of C and Python alone
and can be ended, and waits for it; at shutdown it waits for good.
"""

from __future__ import annotations

import _thread
import sys
import threading
from collections.abc import Callable
from typing import Any


def call_and_survive_exit(function: Callable[..., Any], arguments: tuple[Any, ...]) -> Any:
    """Return `function(*arguments)`: a function of C that releases the lock and raises nothing."""
    if not threading.current_thread().daemon:
        return function(*arguments)  # the interpreter waits for such threads before it shuts down
    results: list[Any] = []
    done = _thread.allocate_lock()
    done.acquire()

    def call() -> None:
        try:
            results.append(function(*arguments))
        finally:
            done.release()

    try:
        _thread.start_new_thread(call, ())
    except RuntimeError:
        # No thread starts during shutdown, nor on a system that has run out of them.
        return done.acquire() if sys.is_finalizing() else function(*arguments)
    done.acquire()
    return results.pop()
