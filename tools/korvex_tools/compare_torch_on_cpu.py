# SPDX-License-Identifier: Apache-2.0
"""Compares torch's operations on the CPU with exact arithmetic, and the emulated device with both.

    python -P -m korvex_tools.compare_torch_on_cpu [--count N] [--write]

Each operation gets a million random operands of either type, half of them random patterns of bits
and half between 2^-20 and 2^20 in size. What it should give comes from MPFR (gmpy2), with the
precision and the exponents of the type, rounded to nearest after each operation of the reference.
Counted are the results with other bits, the sign of zero included; all NaNs count as equal. Three
ways are compared: torch on contiguous operands, which take its vector code; torch on operands with
gaps; and the emulated device. Prints a table in Markdown; --write puts it into docs/emulation.md.
"""

import argparse
import math
import pathlib
import platform
import re

import gmpy2
import numpy as np
import torch

import korvex.emulation
from korvex_tools.marked_text import filled
from korvex_tools.source_tree import SOURCE_TREE

PAGE = SOURCE_TREE / "docs" / "emulation.md"
CONTEXTS = {
    torch.float64: gmpy2.context(precision=53, emin=-1073, emax=1024, subnormalize=True),
    torch.float32: gmpy2.context(precision=24, emin=-148, emax=128, subnormalize=True),
}
ALPHA = 0.75 + 2.0**-12  # a float32 too
ROUNDED = "correctly rounded"
EXACT = "exact"
COMPILER = "as compiled: separate or fused"


def remainder(m, a, b):
    r = m.fmod(a, b)
    return m.add(r, b) if r != 0 and (r < 0) != (b < 0) else r


def floor_quotient(m, a, b):
    """The steps of torch's kernel for CUDA."""
    rest = m.fmod(a, b)
    quotient = m.div(m.sub(a, rest), b)
    if rest != 0 and (b < 0) != (rest < 0):
        quotient = m.sub(quotient, 1)
    if quotient == 0:
        return math.copysign(0.0, a) * math.copysign(1.0, b)
    floor = m.rint_floor(quotient)
    return m.add(floor, 1) if m.sub(quotient, floor) > 0.5 else floor


def fused(m, a, b, c):
    """a + b * c, rounded once."""
    return m.fma(b, c, a)


def separate(m, a, b, c):
    return m.add(a, m.mul(b, c))


# Name, the operation in torch, what it should give (m rounds each of its operations), what CUDA
# documents for it (CUDA C++ Programming Guide, mathematical functions; nvcc without fast math).
OPERATIONS = [
    ("a + b", lambda a, b, c: a + b, lambda m, a, b, c: m.add(a, b), ROUNDED),
    ("a - b", lambda a, b, c: a - b, lambda m, a, b, c: m.sub(a, b), ROUNDED),
    ("a * b", lambda a, b, c: a * b, lambda m, a, b, c: m.mul(a, b), ROUNDED),
    ("a / b", lambda a, b, c: a / b, lambda m, a, b, c: m.div(a, b), ROUNDED),
    ("reciprocal(a)", lambda a, b, c: a.reciprocal(), lambda m, a, b, c: m.div(1, a), ROUNDED),
    ("sqrt(a)", lambda a, b, c: a.sqrt(), lambda m, a, b, c: m.sqrt(a), ROUNDED),
    ("a ** 0.5", lambda a, b, c: a**0.5, lambda m, a, b, c: m.sqrt(a), ROUNDED),
    ("square(a), a ** 2", lambda a, b, c: a**2, lambda m, a, b, c: m.mul(a, a), ROUNDED),
    ("a ** 3", lambda a, b, c: a**3, lambda m, a, b, c: m.mul(m.mul(a, a), a), ROUNDED),
    ("fmod(a, b)", lambda a, b, c: torch.fmod(a, b), lambda m, a, b, c: m.fmod(a, b), EXACT),
    (
        "remainder(a, b), a % b",
        lambda a, b, c: torch.remainder(a, b),
        lambda m, a, b, c: remainder(m, a, b),
        "exact, then one addition",
    ),
    ("frac(a)", lambda a, b, c: a.frac(), lambda m, a, b, c: m.sub(a, m.rint_trunc(a)), EXACT),
    ("floor(a)", lambda a, b, c: a.floor(), lambda m, a, b, c: m.floor(a), EXACT),
    ("round(a)", lambda a, b, c: a.round(), lambda m, a, b, c: m.rint(a), EXACT),
    (
        'div(a, b, rounding_mode="trunc")',
        lambda a, b, c: torch.div(a, b, rounding_mode="trunc"),
        lambda m, a, b, c: m.rint_trunc(m.div(a, b)),
        ROUNDED,
    ),
    (
        'div(a, b, rounding_mode="floor")',
        lambda a, b, c: torch.div(a, b, rounding_mode="floor"),
        lambda m, a, b, c: floor_quotient(m, a, b),
        "exact remainder, then rounded steps",
    ),
    (
        "addcdiv(a, b, c)",
        lambda a, b, c: torch.addcdiv(a, b, c),
        lambda m, a, b, c: m.add(a, m.div(b, c)),
        COMPILER,
    ),
    ("addcmul(a, b, c), fused", torch.addcmul, fused, COMPILER),
    ("addcmul(a, b, c), two roundings", torch.addcmul, separate, COMPILER),
    (
        "add(a, b, alpha=s), fused",
        lambda a, b, c: torch.add(a, b, alpha=ALPHA),
        lambda m, a, b, c: fused(m, a, b, ALPHA),
        COMPILER,
    ),
    (
        "add(a, b, alpha=s), two roundings",
        lambda a, b, c: torch.add(a, b, alpha=ALPHA),
        lambda m, a, b, c: separate(m, a, b, ALPHA),
        COMPILER,
    ),
    ("rsqrt(a)", lambda a, b, c: a.rsqrt(), lambda m, a, b, c: m.rec_sqrt(a), "1 ulp; 2 ulp"),
    (
        "hypot(a, b)",
        lambda a, b, c: torch.hypot(a, b),
        lambda m, a, b, c: m.hypot(a, b),
        "2 ulp; 3 ulp",
    ),
    ("a ** 1.5", lambda a, b, c: a**1.5, lambda m, a, b, c: m.pow(a, 1.5), "2 ulp; 4 ulp"),
]


def operands(dtype, count):
    """Three arrays: patterns of bits without NaN and infinity, and numbers of moderate size."""
    generator = np.random.Generator(np.random.PCG64(20261121))
    real, whole = (np.float64, np.int64) if dtype == torch.float64 else (np.float32, np.int32)
    limits = np.iinfo(whole)

    def one():
        patterns = generator.integers(limits.min, limits.max, count // 2, whole, True).view(real)
        patterns = np.where(np.isfinite(patterns), patterns, real(1.5))
        sizes = np.ldexp(1 + generator.random(count // 2), generator.integers(-20, 20, count // 2))
        signs = generator.choice([-1.0, 1.0], sizes.size)
        return np.concatenate([patterns, (sizes * signs).astype(real)])

    return [torch.from_numpy(one()) for _ in range(3)]


def expected(reference, dtype, values):
    """What MPFR gives, as an array of the type."""
    with gmpy2.context(CONTEXTS[dtype]) as m:
        results = [float(reference(m, *three)) for three in values]
    return torch.tensor(results, dtype=torch.float64, device="cpu").to(dtype)


def different(found, right):
    """How many results have other bits."""
    found, right = found.cpu(), right.cpu()
    equal = (found == right) & (found.signbit() == right.signbit())
    return int((~(equal | (found.isnan() & right.isnan()))).sum())


def strided(tensor):
    """The same values with a gap after each."""
    return torch.stack([tensor, tensor], 1)[:, 0]


def counts(operation, reference, dtype, tensors, values):
    """How many differ: of torch on contiguous operands, on strided ones, of the emulated device."""
    right = expected(reference, dtype, values)
    return [
        different(operation(*map(prepare, tensors)), right)
        for prepare in (torch.Tensor.contiguous, strided, torch.Tensor.cuda)
    ]


def table(count):
    """The lines of the table."""
    processor = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    yield (
        f"{count} operands of each type; torch {torch.__version__}, "
        f"{torch.backends.cpu.get_cpu_capability()} code, "
        f"{processor[1] if processor else platform.processor()}. Counted: results with other bits."
    )
    yield ""
    yield (
        "| operation | float64: torch, contiguous | strided | emulated "
        "| float32: torch, contiguous | strided | emulated | CUDA documents |"
    )
    yield "|---|---|---|---|---|---|---|---|"
    given = {dtype: operands(dtype, count) for dtype in CONTEXTS}
    lists = {
        dtype: list(zip(*(tensor.tolist() for tensor in tensors), strict=True))
        for dtype, tensors in given.items()
    }
    for name, operation, reference, documented in OPERATIONS:
        cells = [
            str(found)
            for dtype in CONTEXTS
            for found in counts(operation, reference, dtype, given[dtype], lists[dtype])
        ]
        yield f"| `{name}` | {' | '.join(cells)} | {documented} |"


def main():
    korvex.emulation.activate()
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=1_000_000)
    parser.add_argument("--write", action="store_true", help="put the table into the page")
    arguments = parser.parse_args()
    lines = []
    for line in table(arguments.count):
        print(line, flush=True)
        lines.append(line)
    if arguments.write:
        PAGE.write_text(filled(PAGE.read_text(), "compare_torch_on_cpu", lines))


if __name__ == "__main__":
    main()
