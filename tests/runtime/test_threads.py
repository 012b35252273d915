# SPDX-License-Identifier: Apache-2.0
"""Sixteen threads call every function at once, and each gets what one thread alone gets.

Decimals are left out of the comparison of digits: their precision belongs to the thread that
imported the module, and another thread has its own.
"""

import decimal
import sys
import threading
import warnings

import pytest
from call_outcomes import outcome

from korvex_tools.verify import golden

fuzzer = golden.load_script(golden.FOLDER.parent / "fuzz" / "fuzz_module.py")
THREADS = 16
CALLS = [fuzzer.call("threads", place) for place in range(1500)]


@pytest.fixture(autouse=True)
def _quick_switches():
    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        yield
    sys.setswitchinterval(interval)


def all_outcomes(module, order):
    """The outcome of every call, made in that order, by its place in CALLS."""
    outcomes = [None] * len(CALLS)
    for place in order:
        outcomes[place] = outcome(module, *CALLS[place])
    return outcomes


def in_threads(work):
    """The results of `work(number)` in threads that start together."""
    results, barrier = [None] * THREADS, threading.Barrier(THREADS)

    def run(number):
        decimal.getcontext().prec = 1000
        barrier.wait()
        results[number] = work(number)

    threads = [threading.Thread(target=run, args=(number,)) for number in range(THREADS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return results


def test_sixteen_threads_get_what_one_gets(module):
    alone = all_outcomes(module, range(len(CALLS)))
    part = len(CALLS) // THREADS

    def work(number):  # every thread begins at another call and goes a quarter of the way round
        start = number * part
        order = [(start + step) % len(CALLS) for step in range(len(CALLS) // 4)]
        return all_outcomes(module, order)

    for outcomes in in_threads(work):
        for place, expected in enumerate(outcomes):
            assert expected is None or expected == alone[place], (
                f"call {place}: {CALLS[place][0].path}"
            )


def test_calls_of_the_threads_cover_every_function():
    paths = {row.path for row, _, _ in CALLS}
    assert paths == {row.path for row in fuzzer.ROWS}


def test_precision_is_that_of_the_calling_thread(module):
    third = {}

    def divide():
        decimal.getcontext().prec = 28
        result = module.TQXResult([fuzzer.torch.tensor([1.0 + 2.0**-52] * 2)] * 2)
        third["digits"] = len(result.to_decimal((0,)).as_tuple().digits)

    thread = threading.Thread(target=divide)
    thread.start()
    thread.join()
    assert third["digits"] <= 28
