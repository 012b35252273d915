# SPDX-License-Identifier: Apache-2.0
"""A first exact sum: what float64 addition loses, and the limbs that keep it."""

import math

import torch

import korvex.emulation

if not torch.cuda.is_available():
    korvex.emulation.activate()  # before the runtime is imported
import korvex.tqx_runtime as tqx

values = [1e16, 1.0, -1e16, 2.0**-60]
x = torch.tensor(values, device="cuda", dtype=torch.float64)

one_by_one = 0.0
for value in values:
    one_by_one += value
print("added one by one:", one_by_one)
print("tqx_sum:         ", tqx.tqx_sum(x).item())

result = tqx.tqx_sum(x, return_tqx=True)
print("limbs:           ", [limb.item() for limb in result.limbs])
print("as a decimal:    ", result.to_decimal().normalize())

# 0.1 is not a tenth. The exact sum says what the million stored numbers really add up to.
tenths = torch.full((1_000_000,), 0.1, device="cuda", dtype=torch.float64)
exact = tqx.tqx_sum_exact(tenths)
print("a million 0.1:   ", exact.normalize())
print("tqx_sum:         ", tqx.tqx_sum(tenths).item())
print("equal to fsum:   ", math.fsum(tenths.tolist()) == tqx.tqx_sum(tenths).item())
