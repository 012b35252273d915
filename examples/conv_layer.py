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

import numpy as np
import torch
from sum_device import choose_device

MEMBERS, CHANNELS, HEIGHT, WIDTH = 2, 3, 16, 16
FILTERS, KERNEL, STRIDE, PADDING = 8, 3, 2, 1
CHECKSUM = "0493806779266035"


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="conv_layer.py", description=__doc__)
    parser.add_argument("--emulated", action="store_true", help="emulated device, GPU or not")
    device = choose_device(parser.parse_args(arguments).emulated)
    tqx = device.runtime
    x, weight, bias = (device.tensor(np.array(values)) for values in operands())

    convolved = tqx.tqx_conv2d(x, weight, stride=STRIDE, padding=PADDING)
    output = tqx.tqx_relu(tqx.tqx_add(convolved, bias.view(1, -1, 1, 1)))

    plain = torch.nn.functional.conv2d(
        x.cpu(), weight.cpu(), bias.cpu(), stride=STRIDE, padding=PADDING
    ).relu()
    other = int((output.cpu() != plain).sum())
    checksum = tqx.tqx_checksum(output)
    print(f"device: {device.description}")
    print(f"output: {tuple(output.shape)}, checksum {checksum}")
    print(f"elements that torch on the host rounds otherwise: {other} of {plain.numel()}")
    if checksum != CHECKSUM:
        print(f"this is not the checksum {CHECKSUM} of every device", file=sys.stderr)
        return 1
    return 0


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
