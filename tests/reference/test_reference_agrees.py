# SPDX-License-Identifier: Apache-2.0
"""The built module and its reference implementation in Python answer every call alike.

Calls are made of a function or method, positional arguments and keywords out of a pool of fitting
and unfitting values. Compared are the bits of a result, or type and text of the exception.
"""

import inspect

import device
import numpy
import pytest
import reference_runtime
import torch
from call_outcomes import outcome
from hypothesis import given, settings
from hypothesis import strategies as st
from public_signatures import FUNCTIONS, METHODS, ROWS

# torch says this once in a process, so only the first of two equal calls would hear it.
pytestmark = pytest.mark.filterwarnings("ignore:Casting complex values to real:UserWarning")

# Values by the way they are made: limb results are of the class of the module that is called.
POOL = [
    lambda m: device.tensor([[1.0, 2.0**-60], [3.0, 1e16]]),
    lambda m: device.tensor([]),
    lambda m: device.tensor(2.5, torch.float32),
    lambda m: device.tensor([1, 2, 3], torch.int32),
    lambda m: torch.tensor([1.0, -0.0, 2.0], dtype=torch.float64),
    lambda m: torch.tensor(True),
    lambda m: m.TQXResult([]),
    lambda m: m.TQXResult([device.tensor([1.0]), device.tensor([2.0**-60])], "cuda:0"),
    lambda m: m.TQXResult([torch.ones(2, 1), torch.ones(2, 1)], "cpu"),
    lambda m: m.TQXVerifiedResult(torch.ones(1), "text"),
    lambda m: [torch.ones(2), torch.ones(2)],
    lambda m: [],
    lambda m: [None],
    lambda m: (),
    lambda m: (0,),
    lambda m: (1, 0),
    lambda m: None,
    lambda m: True,
    lambda m: False,
    lambda m: 0,
    lambda m: 1,
    lambda m: -1,
    lambda m: 16,
    lambda m: 10**30,
    lambda m: 1.5,
    lambda m: float("nan"),
    lambda m: float("-inf"),
    lambda m: 2j,
    lambda m: numpy.int8(1),
    lambda m: numpy.float64(0.5),
    lambda m: "",
    lambda m: "6c3c396ed6b5c36d",
    lambda m: b"bytes",
    lambda m: torch.device("cpu"),
    lambda m: torch.Size([1]),
]
KNOWN = {name for row in ROWS for name in (*row.parameters, *dict(row.keyword_only))}
KEYWORDS = sorted(KNOWN | {"bogus"})

calls = st.tuples(
    st.sampled_from(ROWS),
    st.lists(st.sampled_from(POOL), max_size=6),
    st.dictionaries(st.sampled_from(KEYWORDS), st.sampled_from(POOL), max_size=2),
)


@st.composite
def fitting_calls(draw):
    """Calls with a count that fits, a receiver of the right kind, and no wrong keyword."""
    row = draw(st.sampled_from(ROWS))
    count = draw(st.integers(row.required, max(row.required, len(row.parameters))))
    arguments = [draw(st.sampled_from(POOL)) for _ in range(count)]
    if row.parameters[:1] == ("self",) and not row.name.startswith("__init__"):
        wanted = row.path.partition(".")[0]
        arguments[0] = draw(st.sampled_from([make for make in POOL if _makes(make, wanted)]))
    split = draw(st.integers(min(1, count), count))
    named = dict(zip(row.parameters[split:], arguments[split:], strict=False))
    return row, arguments[:split], named


def _makes(make, class_name):
    return type(make(reference_runtime)).__name__ == class_name


@pytest.fixture(scope="module", autouse=True)
def _same_globals(module):
    reference_runtime.bind(module)
    yield
    for name in ("torch", "cp", "_NATIVE_LOADER"):
        setattr(reference_runtime, name, None)


@settings(max_examples=400)
@given(calls)
def test_any_call_ends_alike(module, call):
    assert outcome(module, *call) == outcome(reference_runtime, *call)


@settings(max_examples=800)
@given(fitting_calls())
def test_fitting_calls_end_alike(module, call):
    assert outcome(module, *call) == outcome(reference_runtime, *call)


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_parameters_are_those_of_the_module(module, row):
    def names_and_defaults(runtime):
        function = row.find(runtime)
        signature = inspect.signature(getattr(function, "__func__", function))
        return [(p.name, p.kind, p.default) for p in signature.parameters.values()]

    assert names_and_defaults(module) == names_and_defaults(reference_runtime)


def test_every_function_has_a_reference_implementation(module):
    public = {name for name in module.__all__ if name != "__version__"}
    assert public == {row.path for row in FUNCTIONS} | {"TQXResult", "TQXVerifiedResult"}
    for name in ("TQXResult", "TQXVerifiedResult"):
        methods = {row.path for row in METHODS if row.path.startswith(f"{name}.")}
        special = {"__module__", "__qualname__", "__doc__", "__dict__", "__weakref__"}
        own = {f"{name}.{n}" for n in vars(getattr(module, name))} - {
            f"{name}.{n}" for n in special | {"__slotnames__"}
        }
        assert own == methods
