# SPDX-License-Identifier: Apache-2.0
"""A dot product and a matrix product whose terms cancel down to almost nothing."""

import random

import torch

import korvex.emulation

if not torch.cuda.is_available():
    korvex.emulation.activate()
import korvex.tqx_runtime as tqx

# Large products that cancel in pairs, in any order, and one small one that is left.
source = random.Random(3)
left = [source.uniform(1, 2) * 2.0 ** source.randrange(60) for _ in range(500)]
right = [source.uniform(1, 2) * 2.0 ** source.randrange(60) for _ in range(500)]
pairs = list(zip(left, right, strict=True))
terms = [*pairs, *((-a, b) for a, b in pairs), (3.0, 2.0**-70)]
source.shuffle(terms)

x = torch.tensor([a for a, _ in terms], device="cuda", dtype=torch.float64)
y = torch.tensor([b for _, b in terms], device="cuda", dtype=torch.float64)
plain = 0.0
for a, b in terms:
    plain += a * b
print("float64:      ", plain)
print("tqx_dot:      ", tqx.tqx_dot(x, y).item())
print("tqx_dot_exact:", tqx.tqx_dot_exact(x, y).normalize())
print("the answer:   ", 3.0 * 2.0**-70)

# A matrix times its adjugate is its determinant times the identity. The determinant is
# (n + 1)^2 - n (n + 2) = 1, whose terms need 55 bits.
n = 2.0**27
a = [[n + 1, n], [n + 2, n + 1]]
b = [[n + 1, -n], [-n - 2, n + 1]]
rounded = [[r[0] * b[0][j] + r[1] * b[1][j] for j in range(2)] for r in a]
product = tqx.tqx_matmul(
    torch.tensor(a, device="cuda", dtype=torch.float64),
    torch.tensor(b, device="cuda", dtype=torch.float64),
)
print("float64:      ", rounded)
print("tqx_matmul:   ", product.tolist())
