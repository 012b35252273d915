#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A small layer of a convolution network whose output has the same bits on every device.

Convolution, bias and rectifier are each rounded once from an exact value, so the checksum of the
output is that of any GPU, and of the emulated device. torch's own layer stands beside it.
"""

import argparse
import math
import random
import sys
from typing import Any

import torch

import korvex.emulation

if "--emulated" in sys.argv or not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

MEMBERS, CHANNELS, HEIGHT, WIDTH = 2, 3, 16, 16
FILTERS, KERNEL, STRIDE, PADDING = 8, 3, 2, 1
CHECKSUM = "0493806779266035"


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="conv_layer.py", description=__doc__, allow_abbrev=False)
    parser.add_argument("--emulated", action="store_true", help="emulated device, GPU or not")
    parser.parse_args(arguments)
    x, weight, bias = (
        torch.tensor(values, dtype=torch.float64, device="cuda") for values in operands()
    )

    convolved = tqx.tqx_conv2d(x, weight, stride=STRIDE, padding=PADDING)
    output = tqx.tqx_relu(tqx.tqx_add(convolved, bias.view(1, -1, 1, 1)))

    plain = torch.nn.functional.conv2d(
        x.cpu(), weight.cpu(), bias.cpu(), stride=STRIDE, padding=PADDING
    ).relu()
    other = int((output.cpu() != plain).sum())
    checksum = tqx.tqx_checksum(output)
    print(device_line())
    print(f"output: {tuple(output.shape)}, checksum {checksum}")
    print(f"elements that torch on the host rounds otherwise: {other} of {plain.numel()}")
    if checksum != CHECKSUM:
        print(f"this is not the checksum {CHECKSUM} of every device", file=sys.stderr)
        return 1
    return 0


def device_line() -> str:
    kind = "emulated (no GPU, or --emulated)" if korvex.emulation.active_device() else "CUDA"
    info = tqx.get_backend_info()
    return f"device: {kind}: {info['device']}, {info['native_arch']}"


def operands() -> tuple[list[Any], list[Any], list[Any]]:
    """Image, weight and bias, from whole-number arithmetic: the same on every machine."""
    source = random.Random("conv_layer")

    def values(*extents: int) -> list[Any]:
        if len(extents) == 1:
            return [math.ldexp(source.getrandbits(54) - 2**53, -53) for _ in range(extents[0])]
        return [values(*extents[1:]) for _ in range(extents[0])]

    image = values(MEMBERS, CHANNELS, HEIGHT, WIDTH)
    return image, values(FILTERS, CHANNELS, KERNEL, KERNEL), values(FILTERS)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
