# SPDX-License-Identifier: Apache-2.0
"""A daemon thread that is inside a kernel when the interpreter shuts down.

The kernel ends while the interpreter is being taken down: an object of the main module sleeps for
so long when it is deleted. CPython then ends the thread as it asks for the interpreter's lock. The
process ends once all threads are in a kernel: in Python code below frames of C++, such as those of
torch, such an end aborts the process (CPython before 3.14), and nothing here can help that.
"""

import threading

import device
import pytest
import torch
from subprocess_run import run_python

from korvex.emulation import _daemons

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="launches of the emulated device"
)

EXIT_DURING_A_KERNEL = """
import korvex.emulation
korvex.emulation.activate(threads={threads})
import threading, time
import torch, korvex.tqx_runtime as runtime
from korvex.emulation import _library
a = torch.randn(1600, 1600, dtype=torch.float64).cuda()  # nearly all time is in the kernel
begin = time.monotonic()
runtime.tqx_matmul(a, a)
duration = time.monotonic() - begin

class Late:
    def __del__(self, sleep=time.sleep, seconds=3 * duration + 0.5):
        sleep(seconds)

late = Late()
inside = threading.Semaphore(0)
call_and_survive_exit = _library.call_and_survive_exit

def say_when_inside(kernel, arguments):
    def run(*arguments):
        inside.release()
        return kernel(*arguments)
    return call_and_survive_exit(run, arguments)

_library.call_and_survive_exit = say_when_inside

def compute():
    runtime.tqx_matmul(a, a)

for _ in range({daemons}):
    threading.Thread(target=compute, daemon=True).start()
for _ in range({daemons}):
    inside.acquire()
time.sleep(duration / 3)
print("done")
"""


@pytest.mark.parametrize("threads, daemons", [(1, 1), (2, 3)])
def test_process_ends_well_while_a_daemon_thread_computes(threads, daemons):
    script = EXIT_DURING_A_KERNEL.format(threads=threads, daemons=daemons)
    assert run_python(script) == "done\n"


def test_results_of_daemon_threads_are_the_same(module):
    x = torch.arange(200_000.0, dtype=torch.float64, device="cuda") / 3
    results = []

    def compute():
        results.append([module.tqx_sum(x, exact=exact).item() for exact in (True, False)])

    for is_daemon in (True, False):
        thread = threading.Thread(target=compute, daemon=is_daemon)
        thread.start()
        thread.join()
    compute()
    assert results[0] == results[1] == results[2]


def called_in(is_daemon):
    """The thread that makes the call, and the one that asks for it."""
    found = []

    def ask():
        found.append(_daemons.call_and_survive_exit(threading.get_ident, ()))
        found.append(threading.get_ident())

    thread = threading.Thread(target=ask, daemon=is_daemon)
    thread.start()
    thread.join()
    return found


def test_only_daemon_threads_leave_the_call_to_another_thread():
    caller, asker = called_in(is_daemon=True)
    assert caller != asker
    caller, asker = called_in(is_daemon=False)
    assert caller == asker
    assert _daemons.call_and_survive_exit(threading.get_ident, ()) == threading.get_ident()


def test_call_is_made_in_place_where_no_thread_can_start(monkeypatch):
    def refuse(function, arguments):
        raise RuntimeError("can't start new thread")

    monkeypatch.setattr(_daemons._thread, "start_new_thread", refuse)
    caller, asker = called_in(is_daemon=True)
    assert caller == asker
