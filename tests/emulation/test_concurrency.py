# SPDX-License-Identifier: Apache-2.0
"""Threads, forked processes and interrupts around launches on the emulated device."""

import ctypes
import sys
import threading
import time

import device
import pytest
import torch
from subprocess_run import run_python

from korvex.emulation._library import HostLibrary, usable_instruction_sets
from korvex.emulation._stand_ins import Kernel

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="launches of the emulated device"
)

CHECKSUMS = """
import korvex.emulation
korvex.emulation.activate(threads={threads}, instruction_set={instruction_set!r})
import torch, korvex.tqx_runtime as runtime
x = torch.randn(1_000_000, dtype=torch.float64, generator=torch.Generator().manual_seed(5))
x = (x * torch.exp2((x * 100).round())).cuda()
results = [runtime.tqx_sum(x, return_tqx=True), runtime.tqx_sum(x, exact=False, return_tqx=True)]
print([limb.item().hex() for result in results for limb in result.limbs])
"""


def instruction_sets():
    is_emulated = device.choose().runtime._NATIVE_LOADER.arch.startswith("emulated")
    return usable_instruction_sets() if is_emulated else ()


def test_bits_depend_neither_on_threads_nor_on_instructions():
    outputs = {
        run_python(CHECKSUMS.format(threads=threads, instruction_set=instruction_set))
        for instruction_set in instruction_sets() or ["base"]
        for threads in (1, 3)
    }
    assert len(outputs) == 1 and "0x" in outputs.pop()


class _Kernel:
    """The sequential sum of ten million elements, ready to launch."""

    def __init__(self, library):
        runtime = device.choose().runtime
        x = torch.ones(10_000_000, dtype=torch.float64, device="cuda")
        out = torch.zeros(4, dtype=torch.float64, device="cuda")
        self._kernel = Kernel(library, library.kernels["tqx_sum_seq_kernel"])
        self._arguments = (runtime.cp.from_dlpack(x), runtime.cp.from_dlpack(out), x.numel())

    def launch(self):
        self._kernel.function((1, 1, 1), (1, 1, 1), self._arguments)


@pytest.fixture
def is_lock_never_taken_away():
    """A thread gives the interpreter lock up by itself, or keeps it."""
    before = sys.getswitchinterval()
    sys.setswitchinterval(1e6)
    yield
    sys.setswitchinterval(before)


def runs_beside(kernel, most_launches):
    """Whether this thread is let in while another one is inside one of so many launches."""
    is_inside = is_seen = False

    def launch():
        nonlocal is_inside
        for _ in range(most_launches):
            is_inside = True
            kernel.launch()
            is_inside = False
            if is_seen:
                return

    thread = threading.Thread(target=launch)
    thread.start()
    while thread.is_alive() and not is_seen:
        is_seen = is_inside
        time.sleep(0)  # gives the lock up
    thread.join()
    return is_seen


def test_kernel_runs_without_the_interpreter_lock(is_lock_never_taken_away):
    assert runs_beside(_Kernel(HostLibrary("base", threads=1)), 2000)


def test_a_kernel_that_kept_the_lock_would_be_noticed(is_lock_never_taken_away):
    library = HostLibrary("base", threads=1)
    keeping = ctypes.PyDLL(str(library.path))
    keeping.korvex_host_launch.argtypes = library._functions.korvex_host_launch.argtypes
    library._functions = keeping
    assert not runs_beside(_Kernel(library), 5)


def test_threads_of_a_program_compute_side_by_side(module):
    results = {}

    def compute(number):
        x = torch.full((200_000,), float(number), dtype=torch.float64, device="cuda")
        results[number] = [module.tqx_sum(x / 3, exact=exact).item() for exact in (True, False)]

    threads = [threading.Thread(target=compute, args=(number,)) for number in range(1, 9)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for number in range(1, 9):
        x = torch.full((200_000,), float(number), dtype=torch.float64, device="cuda")
        assert results[number] == [module.tqx_sum(x / 3).item()] * 2


def test_forked_process_keeps_its_device():
    run_python("""
        import os, warnings
        import korvex.emulation
        korvex.emulation.activate(threads=4)
        import torch, korvex.tqx_runtime as runtime
        x = torch.ones(500_000, dtype=torch.float64, device="cuda")
        before = runtime.tqx_sum(x, exact=False).item()
        warnings.simplefilter("ignore", DeprecationWarning)  # of forks beside other threads
        child = os.fork()
        if child == 0:
            torch.set_num_threads(1)
            equal = [runtime.tqx_sum(x, exact=exact).item() == before for exact in (True, False)]
            os._exit(0 if equal == [True, True] and torch.ones(1).cuda().is_cuda else 1)
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
        assert runtime.tqx_sum(x, exact=False).item() == before == 500_000.0
    """)


def test_interrupt_comes_after_the_kernel_has_ended():
    run_python("""
        import os, signal, threading
        import korvex.emulation
        korvex.emulation.activate()
        import torch, korvex.tqx_runtime as runtime
        x = torch.ones(20_000_000, dtype=torch.float64, device="cuda")
        out = torch.zeros(4, dtype=torch.float64, device="cuda")
        kernel = runtime._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
        arguments = (runtime.cp.from_dlpack(x), runtime.cp.from_dlpack(out), x.numel())
        signal.signal(signal.SIGINT, signal.default_int_handler)  # may be ignored in the background
        interrupt = threading.Timer(0.005, os.kill, (os.getpid(), signal.SIGINT))
        interrupt.start()
        try:
            while True:
                kernel.function((1, 1, 1), (1, 1, 1), arguments)
        except KeyboardInterrupt:
            pass
        assert out[0].item() == 20_000_000.0
        interrupt.join()
        assert runtime.tqx_sum(x).item() == 20_000_000.0
    """)
