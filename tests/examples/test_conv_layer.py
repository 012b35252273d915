# SPDX-License-Identifier: Apache-2.0
"""The layer of the example, and its checksum worked out from exact fractions."""

import hashlib
import os
import struct
import subprocess
import sys
from pathlib import Path

import pytest

from korvex_tools.references import exact_linear
from korvex_tools.references.exact_arithmetic import round_to_double

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def run(*arguments):
    emulated = os.environ.get("KORVEX_TEST_DEVICE") == "emulated"
    return subprocess.run(
        [sys.executable, "-W", "error", EXAMPLES / "conv_layer.py", *arguments]
        + ["--emulated"] * emulated,
        capture_output=True,
        text=True,
        timeout=300,
    )


@pytest.fixture
def example(monkeypatch):
    monkeypatch.syspath_prepend(EXAMPLES)
    import conv_layer

    return conv_layer


def test_checksum_is_that_of_exact_arithmetic(example):
    """Each element: the exact sum rounded, the bias added and rounded, negative ones to zero."""
    x, weight, bias = example.operands()
    sums = exact_linear.convolution(x, weight, example.STRIDE, example.PADDING)
    outputs = [
        max(round_to_double(v) + b, 0.0)
        for member in sums
        for plane, b in zip(member, bias, strict=True)
        for row in plane
        for v in row
    ]
    assert len(outputs) == 2 * 8 * 8 * 8
    packed = struct.pack(f"<{len(outputs)}d", *outputs)
    assert hashlib.sha256(packed).hexdigest()[:16] == example.CHECKSUM


def test_layer_gives_that_checksum_on_this_device(example):
    process = run()
    assert process.returncode == 0 and process.stderr == ""
    device, output, others = process.stdout.splitlines()
    assert device.startswith(("device: emulated", "device: CUDA"))
    assert output == f"output: (2, 8, 8, 8), checksum {example.CHECKSUM}"
    assert others.startswith("elements that torch on the host rounds otherwise: ")


def test_useless_argument_is_refused():
    refused = run("--wrong")
    assert refused.returncode == 2 and refused.stdout == ""
