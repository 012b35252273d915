# SPDX-License-Identifier: Apache-2.0
"""Every function over and over, on real operands: blocks, references and tensors stay as they were.

The calls come from the fuzzer's generator: for each function one that gives a value and one that
fails. The reference implementation makes the same calls as a control: where it grows too, the
growth is the interpreter's or torch's. `make leaks` makes 10,000 calls of each instead of 200.
"""

import contextlib
import gc
import sys

import pytest
import reference_runtime
import torch
from call_outcomes import outcome
from public_signatures import ROWS

from korvex_tools.verify import golden

# torch warns once in a process: which call hears it says nothing about the function.
pytestmark = [
    pytest.mark.filterwarnings("ignore"),
    pytest.mark.usefixtures("quick_collections"),
]

fuzzer = golden.load_script(golden.FOLDER.parent / "fuzz" / "fuzz_module.py")
VALUES, FAILURES = 1, 1
ROUNDS = 5  # free lists fill in some rounds; a leak shows in every one


@pytest.fixture(scope="module", autouse=True)
def _same_globals(module):
    reference_runtime.bind(module)


class Repeated:
    """One call with operands that are made once."""

    def __init__(self, row, makers, keywords):
        self.row, self.makers, self.keywords = row, makers, keywords

    def prepare(self, runtime):
        args = [make(runtime) for make in self.makers]
        kwargs = {name: make(runtime) for name, make in self.keywords.items()}
        function = self.row.find(runtime)
        function = getattr(function, "__func__", function)

        def call():
            with contextlib.suppress(Exception):
                function(*args, **kwargs)

        return call, [*args, *kwargs.values()]


def chosen_calls(module, row):
    """The first calls of that function that the generator makes, by how they end."""
    wanted = {"value": VALUES, "failure": FAILURES}
    found = []
    saved, fuzzer.ROWS = fuzzer.ROWS, [row]
    try:
        for place in range(200):
            _, makers, keywords = fuzzer.call(f"leaks {row.path}", place)
            end = outcome(module, row, makers, keywords)
            kind = "failure" if len(end) == 3 else "value"
            if end != "left out" and wanted[kind] > 0:
                wanted[kind] -= 1
                found.append(Repeated(row, makers, keywords))
            if not any(wanted.values()):
                break
    finally:
        fuzzer.ROWS = saved
    return found


def growth(call, repeats):
    """Blocks of memory that this many calls leave behind."""
    for _ in range(5):
        call()
    gc.collect()
    before = sys.getallocatedblocks()
    for _ in range(repeats):
        call()
    gc.collect()
    return sys.getallocatedblocks() - before


def least_growth(call, repeats):
    least = sys.maxsize
    for _ in range(ROUNDS):
        least = min(least, growth(call, repeats))
        if least < repeats / 2:
            break
    return least


def living_tensors():
    gc.collect()
    return sum(isinstance(thing, torch.Tensor) for thing in gc.get_objects())


def references(operands):
    return [sys.getrefcount(operand) for operand in operands]


def check(module, row, repeats):
    for repeated in chosen_calls(module, row):
        call, operands = repeated.prepare(module)
        call()  # a constructor's receiver holds its operands from the first call on
        before = references(operands), living_tensors()
        grown = least_growth(call, repeats)
        assert (references(operands), living_tensors()) == before
        if grown >= repeats / 2:
            control = least_growth(repeated.prepare(reference_runtime)[0], repeats)
            assert grown <= control + repeats / 2, f"{grown} blocks, the control {control}"


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_two_hundred_calls_leave_nothing(module, row):
    check(module, row, 200)


@pytest.mark.long
@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_ten_thousand_calls_leave_nothing(module, row):
    check(module, row, 10_000)


def test_control_leaves_nothing_either(module):
    row = next(row for row in ROWS if row.path == "tqx_sum")
    check(reference_runtime, row, 200)


class _Planted:
    """A function that keeps something of every call."""

    def __init__(self, keep):
        self.keep = keep
        self.kept = []

    def call(self, x):
        self.kept.append(self.keep(x))


COUNTS_BLOCKS = pytest.mark.skipif(
    sys.getallocatedblocks() == 0, reason="PYTHONMALLOC=malloc counts no blocks"
)


@pytest.mark.parametrize(
    "keep",
    [
        pytest.param(lambda x: x, id="reference"),
        pytest.param(lambda x: object(), id="block", marks=COUNTS_BLOCKS),
        pytest.param(lambda x: x + 1, id="tensor"),
    ],
)
def test_planted_leak_is_noticed(keep):
    planted, x = _Planted(keep), torch.ones(2)
    before = references([x]), living_tensors()
    grown = growth(lambda: planted.call(x), 200)
    assert grown >= 100 or (references([x]), living_tensors()) != before
