# SPDX-License-Identifier: Apache-2.0
"""The process that soak.py starts: makes the calls, disturbs them, compares, counts and watches."""

import argparse
import collections
import ctypes
import decimal
import gc
import importlib.util
import itertools
import os
import pathlib
import random
import resource
import signal
import statistics
import sys
import threading
import time
import warnings

import call_outcomes
import device
import reference_runtime
import torch
from public_signatures import ROWS

WARM_UP = 0.25  # of the time, and of the samples
LONG_OPERANDS = 0.1  # of the calls of these functions: long enough for kernels on several threads
LARGE = 200_000
TAKE_LONG_OPERANDS = {
    f"tqx_{name}"
    for name in "sum mean var std norm prod cumsum logsumexp dot add sub mul div relu neg abs exp "
    "log sqrt sigmoid tanh".split()
}
DISTURBED = 0.5  # of the calls
MOST_KERNEL_CALLS, MOST_OBJECT_CALLS = 6, 400


def load_fuzzer():
    path = pathlib.Path(__file__).with_name("fuzz_module.py")
    form = importlib.util.spec_from_file_location("fuzz_module", path)
    script = importlib.util.module_from_spec(form)
    form.loader.exec_module(script)
    return script


fuzzer = load_fuzzer()


# ---- calls ----


def call(seed, place):
    """The fuzzer's call of that number; some get operands that are worth several threads."""
    row, makers, keywords = fuzzer.call(seed, place)
    source = random.Random(f"{seed}/{place}/size")
    operands = fuzzer.TENSOR_NAMES.intersection(row.parameters[: len(makers)])
    if source.random() < LONG_OPERANDS and operands and row.path in TAKE_LONG_OPERANDS:
        data = torch.rand(
            LARGE, dtype=torch.float64, generator=torch.Generator().manual_seed(place)
        )
        for index, name in enumerate(row.parameters[: len(makers)]):
            if name in operands:
                makers[index] = lambda runtime: device.to_device(data)
    return row, makers, keywords


# ---- disturbances ----


class Allocations:
    """failing_allocations.cpp, which was loaded ahead of this process."""

    def __init__(self, library, module):
        self._library = ctypes.PyDLL(library)
        self._library.soak_fail.argtypes = [ctypes.c_long, ctypes.c_long]
        self._library.soak_library_is_at.argtypes = [ctypes.c_int, ctypes.c_size_t, ctypes.c_size_t]
        kernels = module.get_backend_info()["native_cubin"]
        files = [kernels, module.__file__, interpreter(), library]
        for number, file in enumerate(files):
            self._library.soak_library_is_at(number, *address_range(os.path.realpath(file)))
        self._library.soak_stand_before_objects()
        # Bound here: within a call nothing more may be allocated for them.
        self.fail, self.waiting = self._library.soak_fail, self._library.soak_waiting


def mappings():
    """Files that are loaded, with begin and end of each piece."""
    with open("/proc/self/maps") as maps:
        for line in maps:
            parts = line.split(maxsplit=5)
            if len(parts) == 6:
                begin, end = (int(text, 16) for text in parts[0].split("-"))
                yield parts[5].strip(), begin, end


def address_range(file):
    """From the begin of its first piece to the end of its last: nobody else may be between."""
    found = [(begin, end) for name, begin, end in mappings() if name == file]
    first, last = min(begin for begin, _ in found), max(end for _, end in found)
    others = {name for name, begin, _ in mappings() if first <= begin < last} - {file}
    if others:
        raise RuntimeError(f"{', '.join(others)} lies within {file}")
    return first, last


def interpreter():
    """The file that holds it: a library of its own, or the program."""
    place = ctypes.cast(ctypes.pythonapi.PyObject_Malloc, ctypes.c_void_p).value
    return next(name for name, begin, end in mappings() if begin <= place < end)


class Interrupts:
    """A timer whose signal raises KeyboardInterrupt while the main thread is inside a call."""

    def __init__(self, seed):
        self._source = random.Random(f"{seed}/interrupts")
        self.is_open = False
        self.delivered = 0
        signal.signal(signal.SIGALRM, self._on_signal)

    def start(self):
        signal.setitimer(signal.ITIMER_REAL, self._source.uniform(0.0002, 0.02))

    def stop(self):
        self.is_open = False
        signal.setitimer(signal.ITIMER_REAL, 0)

    def _on_signal(self, number, frame):
        self.start()
        if self.is_open:
            self.is_open = False
            self.delivered += 1
            raise KeyboardInterrupt


# ---- the soak ----


class Soak:
    """The calls of all threads, and what came of them."""

    def __init__(self, options, module):
        self.seed, self.module = options.seed, module
        self.end = time.monotonic() + options.seconds
        self.allocations = Allocations(options.library, module)
        self.interrupts = Interrupts(options.seed)
        self.places = itertools.count()
        self.lock = threading.Lock()
        self.calls, self.counts = collections.Counter(), collections.Counter()
        self.differences = []

    def work(self, is_main):
        decimal.getcontext().prec = 1000  # as in the thread that imported the module
        # torch applies the number to a new thread at its first parallel loop: a transform ahead of
        # that would run on several of MKL's threads, whose last bits differ.
        torch.set_num_threads(1)
        while time.monotonic() < self.end:
            place = next(self.places)
            try:
                self.one(place, is_main)
            except Exception as error:
                self.note(place, "the soak itself", f"{type(error).__name__}: {error}", "")

    def one(self, place, is_main):
        row, makers, keywords = call(self.seed, place)
        source = random.Random(f"{self.seed}/{place}/disturbance")
        expected = call_outcomes.outcome(reference_runtime, row, makers, keywords)
        counted = collections.Counter(calls=1)
        if source.random() < DISTURBED:
            disturbance = self.interrupted if is_main and source.random() < 0.5 else self.starved
            first = disturbance(source, row, makers, keywords, counted)
            if first is not None:
                self.compare(place, row, first, expected, counted)
        again = call_outcomes.outcome(self.module, row, makers, keywords)
        self.compare(place, row, again, expected, counted)
        with self.lock:
            self.calls[row.path] += 1
            self.counts += counted

    def interrupted(self, source, row, makers, keywords, counted):
        """The outcome of a call that an interrupt may end: None where it did."""
        try:
            self.interrupts.is_open = True
            found = call_outcomes.outcome(self.module, row, makers, keywords)
            self.interrupts.is_open = False
            return found
        except KeyboardInterrupt:
            counted["interrupts"] += 1
            return None

    def starved(self, source, row, makers, keywords, counted):
        """The outcome of a call within which an allocation may fail: None where it says so."""
        runtime = Starved(self, row, source)
        found = call_outcomes.outcome(self.module, runtime, makers, keywords)
        if not runtime.has_failed:
            return found
        counted[f"failures of {runtime.kind}"] += 1
        if found[0] == "MemoryError":
            counted["memory errors"] += 1
            return None
        return found

    def compare(self, place, row, found, expected, counted):
        counted["comparisons"] += 1
        if found != expected:
            self.note(place, row.path, found, expected)

    def note(self, place, path, found, expected):
        with self.lock:
            self.differences.append((place, path, str(found)[:300], str(expected)[:300]))


class Starved:
    """A row whose call has one allocation fail: within the function alone, not in what makes its
    operands or looks at its result."""

    def __init__(self, soak, row, source):
        self._soak, self._row = soak, row
        self.kind = source.choice(["kernels", "objects"])
        is_of_kernels = self.kind == "kernels"
        self._kernel_call = source.randrange(1, MOST_KERNEL_CALLS) if is_of_kernels else 0
        self._object_call = 0 if is_of_kernels else source.randrange(1, MOST_OBJECT_CALLS)
        self.parameters = row.parameters
        self.has_failed = False

    def call(self, runtime, /, *args, **kwargs):
        fail, waiting = self._soak.allocations.fail, self._soak.allocations.waiting
        fail(self._kernel_call, self._object_call)
        try:
            return self._row.call(runtime, *args, **kwargs)
        finally:
            is_waiting = waiting()
            fail(0, 0)
            self.has_failed = not is_waiting


# ---- watching ----


def resident_mb():
    """Without the free memory that the C library keeps for itself."""
    ctypes.CDLL(None).malloc_trim(0)
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * resource.getpagesize() / 2**20


class Watch:
    """Samples of the memory, and the descriptors and threads that are there after warm-up."""

    def __init__(self, seconds):
        self._seconds, self._begin = seconds, time.monotonic()
        self._stop = threading.Event()
        self.samples = []
        self.handles = None
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        while not self._stop.wait(min(1.0, self._seconds / 40)):
            self.samples.append(resident_mb())
            if self.handles is None and time.monotonic() > self._begin + WARM_UP * self._seconds:
                self.handles = handles()

    def stop(self):
        self._stop.set()
        self._thread.join()

    def memory(self):
        """Medians: of a tenth of the samples after warm-up, and of the last tenth."""
        after = self.samples[int(len(self.samples) * WARM_UP) :] or [resident_mb()]
        tenth = max(1, len(after) // 10)
        return statistics.median(after[:tenth]), statistics.median(after[-tenth:])


def handles():
    """Open descriptors; a listing has one more for itself, each time."""
    return len(os.listdir("/proc/self/fd"))


def threads_of_process():
    return len(os.listdir("/proc/self/task"))


# ---- the end ----


def verdicts(soak, watch, threads_before, options):
    """What went wrong, in words."""
    gc.collect()
    begin, end = watch.memory()
    never = sorted({row.path for row in ROWS} - set(soak.calls))
    if soak.differences:
        yield f"{len(soak.differences)} differences"
    if end - begin > options.memory_mb:
        yield f"memory grew by {end - begin:.1f} MB, more than {options.memory_mb}"
    if watch.handles is not None and handles() > watch.handles:
        yield f"{handles()} descriptors are open, after warm-up {watch.handles}"
    if threads_of_process() > threads_before:
        yield f"{threads_of_process()} threads are there, before {threads_before}"
    if sum(soak.calls.values()) > 20 * len(ROWS) and never:
        yield f"never called: {', '.join(never)}"


def print_table(soak, watch, seconds):
    for place, path, found, expected in soak.differences[:20]:
        print(f"call {place}: {path}\n  module:    {found}\n  reference: {expected}")
    width = max(len(row.path) for row in ROWS)
    cells = [f"{row.path:{width}} {soak.calls[row.path]:8,}" for row in ROWS]
    for first in range(0, len(cells), 2):
        print("    ".join(cells[first : first + 2]))
    begin, end = watch.memory()
    rows = {
        "seconds": f"{seconds:.0f}",
        "functions called": f"{len(soak.calls)} of {len(ROWS)}",
        "calls": f"{soak.counts['calls']:,}",
        "comparisons with the reference": f"{soak.counts['comparisons']:,}",
        "interrupts that ended a call": f"{soak.counts['interrupts']:,}",
        "allocations of kernels that failed": f"{soak.counts['failures of kernels']:,}",
        "allocations of objects that failed": f"{soak.counts['failures of objects']:,}",
        "calls that ended in MemoryError": f"{soak.counts['memory errors']:,}",
        "memory after warm-up and at the end": f"{begin:.1f} MB, {end:.1f} MB",
        "differences": f"{len(soak.differences)}",
    }
    for name, value in rows.items():
        print(f"{name:38} {value}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, required=True)
    parser.add_argument("--seed", default="0")
    parser.add_argument("--threads", type=int, default=4)
    parser.add_argument("--memory-mb", type=int, default=64, help="growth after warm-up, at most")
    parser.add_argument("--library", required=True)
    options = parser.parse_args()
    warnings.simplefilter("ignore")
    torch.set_num_threads(1)
    module = device.choose().runtime
    reference_runtime.bind(module)
    sys.setswitchinterval(1e-4)
    threads_before = threads_of_process()
    begin = time.monotonic()
    soak = Soak(options, module)
    watch = Watch(options.seconds)
    workers = [threading.Thread(target=soak.work, args=(False,)) for _ in range(options.threads)]
    for worker in workers:
        worker.start()
    soak.interrupts.start()
    soak.work(True)
    soak.interrupts.stop()
    for worker in workers:
        worker.join()
    watch.stop()
    print_table(soak, watch, time.monotonic() - begin)
    wrong = list(verdicts(soak, watch, threads_before, options))
    print("soak: " + ("FAILED: " + "; ".join(wrong) if wrong else "passed"), f"(seed {soak.seed})")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
