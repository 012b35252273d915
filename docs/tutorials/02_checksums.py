# SPDX-License-Identifier: Apache-2.0
"""One checksum for every order of the elements, every thread count and every device."""

import random

import torch

import korvex.emulation

if not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

device = korvex.emulation.active_device()  # None on a GPU, which has its own threads
source = random.Random(2)
values = [source.uniform(-1, 1) * 2.0 ** source.randrange(-40, 40) for _ in range(100_000)]

sums, checksums = set(), set()
for _ in range(5):
    total = 0.0
    for value in values:
        total += value
    sums.add(total)
    for threads in (1, 2, 3):
        if device:
            korvex.emulation.activate(threads=threads)
        x = torch.tensor(values, device="cuda", dtype=torch.float64)
        checksums.add(tqx.tqx_checksum(tqx.tqx_sum(x)))
    source.shuffle(values)

print("float64 additions in five orders:", len(sums), "different sums")
print("tqx_sum in five orders:          ", len(checksums), "checksum,", *checksums)

# A result that carries its checksum notices when its value changes.
result = tqx.TQXVerifiedResult(tqx.tqx_sum(x))
print("as computed: verify() is", result.verify())
result.value.mul_(1 + 2.0**-52)  # the last bit
try:
    result.verify()
except ValueError as error:
    print(error)
