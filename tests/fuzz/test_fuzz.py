# SPDX-License-Identifier: Apache-2.0
"""A short run of the fuzzer, its own soundness, and the calls in which it found something."""

import device
import pytest
import reference_runtime
import torch
from call_outcomes import outcome
from public_signatures import ROWS

from korvex_tools.verify import golden

fuzzer = golden.load_script(golden.FOLDER.parent / "fuzz" / "fuzz_module.py")
ROW = {row.path: row for row in ROWS}

# What the fuzzer found, each as the smallest call that shows it: path, arguments, keywords.
FINDINGS = [
    # The text of an index that is too large for torch holds addresses: they are not compared.
    ("TQXResult.view", [lambda m: m.TQXResult([torch.ones(2)]), lambda m: 10**30], {}),
    ("tqx_conv2d", [lambda m: device.tensor([[[[1.0]]]])] * 2 + [lambda m: 10**30], {}),
]


@pytest.fixture(autouse=True)
def _same_globals(module):
    reference_runtime.bind(module)
    yield
    for name in ("torch", "cp", "_NATIVE_LOADER"):
        setattr(reference_runtime, name, None)


@pytest.mark.parametrize("seed", ["first", "second", "third"])
def test_short_run_finds_no_difference(module, seed):
    run = fuzzer.fuzz(module, seed, count=1200)
    assert run.differences == [], run.report()
    assert run.ends["a value"] > run.calls / 5 and len(run.ends) > 5


def test_calls_are_repeatable_by_number(module):
    whole = fuzzer.fuzz(module, "repeat", count=60)
    parts = [fuzzer.fuzz(module, "repeat", place, 1) for place in range(60)]
    total = sum((part.ends for part in parts), start=type(whole.ends)())
    assert whole.ends == total


def test_every_function_is_called(module):
    rows = {fuzzer.call("reach", place)[0].path for place in range(3000)}
    assert rows == set(ROW)


@pytest.mark.parametrize(
    "wrong",
    [
        lambda tensor: tensor.double().min() + 0.0,  # loses the sign of a zero
        lambda tensor: tensor.min().double() if tensor.numel() else torch.tensor(0.0),
    ],
)
def test_planted_difference_is_found(module, monkeypatch, wrong):
    monkeypatch.setattr(reference_runtime, "tqx_min", wrong)
    monkeypatch.setattr(fuzzer, "ROWS", [ROW["tqx_min"]])
    assert fuzzer.fuzz(module, "planted", count=600).differences


@pytest.mark.parametrize("path, args, kwargs", FINDINGS, ids=[row[0] for row in FINDINGS])
def test_what_was_found_stays_mended(module, path, args, kwargs):
    assert outcome(module, ROW[path], args, kwargs) == outcome(
        reference_runtime, ROW[path], args, kwargs
    )
