# SPDX-License-Identifier: Apache-2.0
"""The layer of the example, and its checksum worked out from exact fractions."""

import hashlib
import struct

import pytest
from example_run import load_example, run_example

from korvex_tools.references import exact_linear
from korvex_tools.references.exact_arithmetic import round_to_double


@pytest.fixture(scope="module")
def example():
    return load_example("conv_layer")


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
    process = run_example("conv_layer")
    assert process.returncode == 0 and process.stderr == ""
    device, output, others = process.stdout.splitlines()
    assert device.startswith(("device: emulated", "device: CUDA"))
    assert output == f"output: (2, 8, 8, 8), checksum {example.CHECKSUM}"
    assert others.startswith("elements that torch on the host rounds otherwise: ")


def test_useless_argument_is_refused():
    refused = run_example("conv_layer", "--wrong")
    assert refused.returncode == 2 and refused.stdout == ""
