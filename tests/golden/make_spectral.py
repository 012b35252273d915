# SPDX-License-Identifier: Apache-2.0
"""Golden digests of the transforms. Run it to write spectral.json: python make_spectral.py

Only what every device must give: lengths 1, 2 and 4 on the radix-2 route. There the twiddle
factors are 1 and, at length 4, exp(-+ i pi/2) as torch's cos and sin give it; cases that depend on
these say so in their names. Operands are real (or complex with zero imaginary parts), so that in
each complex product one of the two products of a part is zero: the part is rounded once, whether or
not the device fuses the product into the sum. Longer transforms and torch.fft round differently on
different devices, and stand in no file of digests.
"""

import functools
import math
import sys

from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "the same operations on Python floats, real and imaginary part apart; see the script"
BY_TORCH = " (depends on torch's cos and sin of pi/2)"


def transform(values, inverse):
    """Of 1, 2 or 4 pairs (real, imaginary), with the turns of the sum in steps of two bits."""
    n = len(values)
    x = [values[0], values[2], values[1], values[3]] if n == 4 else list(values)
    size = 2
    while size <= n:
        step = (2.0 if inverse else -2.0) * math.pi / size
        for start in range(0, n, size):
            for k in range(size // 2):
                i, j = start + k, start + k + size // 2
                t = product(x[j], (math.cos(step * k), math.sin(step * k)))
                u = x[i]
                x[i] = (u[0] + t[0], u[1] + t[1])
                x[j] = (u[0] - t[0], u[1] - t[1])
        size *= 2
    if inverse and n > 1:
        x = [(re * (1.0 / n) - im * 0.0, re * 0.0 + im * (1.0 / n)) for re, im in x]
    return x


def product(a, w):
    return a[0] * w[0] - a[1] * w[1], a[0] * w[1] + a[1] * w[0]


def by_row(rows, inverse):
    return [transform([(v, 0.0) for v in row], inverse) for row in rows]


def parts(tensor):
    """Real and imaginary parts side by side, in the order of the reference."""
    torch = sys.modules["torch"]
    return torch.view_as_real(tensor.resolve_conj())


def forward(m, x):
    return parts(m.tqx_fft(x))


def inverse(m, x):
    torch = sys.modules["torch"]
    return parts(m.tqx_ifft(torch.complex(x, torch.zeros_like(x))))


def half(rows):
    return [row[: len(row) // 2 + 1] for row in by_row(rows, False)]


def padded(rows):
    return by_row([[*row, 0.0] for row in rows], False)


def mark(n):
    return BY_TORCH if n == 4 else ""


VALUES = {
    "uniform": lambda n: golden.rows(golden.uniform(f"spectral {n}", 100 * n), n),
    "wide": lambda n: golden.rows(golden.wide(f"spectral {n}", 100 * n), n),
    "integers": lambda n: golden.rows(golden.integers(f"spectral {n}", 100 * n), n),
}


def _cases():
    for n in (1, 2, 4):
        for kind, rows in VALUES.items():
            inputs = functools.partial(lambda rows, n: (rows(n),), rows, n)
            for name, expected, run in [
                ("tqx_fft", functools.partial(by_row, inverse=False), forward),
                ("tqx_ifft", functools.partial(by_row, inverse=True), inverse),
                ("tqx_rfft", half, lambda m, x: parts(m.tqx_rfft(x))),
            ]:
                yield Case(f"{name} of length {n}, {kind}{mark(n)}", inputs, expected, run)
    yield Case(
        f"tqx_fft of length 3 padded to 4{BY_TORCH}",
        lambda: (golden.rows(golden.uniform("padded", 300), 3),),
        padded,
        lambda m, x: parts(m.tqx_fft(x, n=4)),
    )
    yield Case(
        "tqx_fft of length 4 truncated to 2",
        lambda: (golden.rows(golden.uniform("truncated", 400), 4),),
        lambda rows: by_row([row[:2] for row in rows], False),
        lambda m, x: parts(m.tqx_fft(x, n=2)),
    )


CASES = [*_cases()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
