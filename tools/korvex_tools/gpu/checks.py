# SPDX-License-Identifier: Apache-2.0
"""Checks of the kernels on a GPU: the same bits as on the host, whatever the grid and the block.

usage: python -P -m korvex_tools.gpu.checks CHECK [--emulated]

CHECK is sums, elementwise, dots, matrices, reductions, grids, nan, large, division or sanitizer.
The last line printed is JSON with the figures; the exit status is 0 where everything agreed.
--emulated puts the host kernels in the GPU's place, which tries the check and not the GPU.
"""

import argparse
import hashlib
import itertools
import json
import sys

import numpy as np

from korvex_tools.gpu.cuda_device import HostDevice, choose_device
from korvex_tools.gpu.inputs import SEED, inputs, operands
from korvex_tools.gpu.launches import (
    Sums,
    bits,
    digest,
    elementwise_kernels,
    launch_shapes,
    run_elementwise,
    run_kernel,
    small_launch,
)
from korvex_tools.references import exact_arithmetic

NAN = 0x7FF8000000000000


class Report:
    def __init__(self) -> None:
        self.compared = 0
        self.wrong: list[str] = []

    def same(self, what: str, actual, expected) -> None:
        self.compared += 1
        if actual != expected:
            shown = [hex(word) for word in actual[:8]], [hex(word) for word in expected[:8]]
            self.wrong.append(f"{what}: {shown[0]}, expected {shown[1]}")

    def same_arrays(self, what: str, actual: np.ndarray, expected: np.ndarray) -> None:
        if expected.size == 0:
            self.compared += 1
            return
        wrong = np.flatnonzero(actual != expected)
        first = int(wrong[0]) if wrong.size else 0
        what = f"{what}: {wrong.size} wrong, the first at {first}"
        self.same(what, [int(actual[first])], [int(expected[first])])

    def finish(self, **figures) -> dict:
        return {"compared": self.compared, "wrong": self.wrong[:20], **figures}


# --- Checks


def check_sums(device, host) -> dict:
    """Every input by both kernels: device against host, bit for bit, aligned and between pairs."""
    report = Report()
    everything = {}
    for name, values in inputs().items():
        with Sums(host, values) as sums:
            four, two = sums.sequential(), sums.parallel()
        everything[name] = four + two
        for offset in (0, 1):
            with Sums(device, values, offset) as sums:
                report.same(f"{name}, sequential, offset {offset}", sums.sequential(), four)
                report.same(f"{name}, parallel, offset {offset}", sums.parallel(), two)
    return report.finish(digest_of_host_results=digest(everything))


def check_dots(device, host) -> dict:
    """Both dot products on every pair of operands, and on lengths around the ends of tiles."""
    report = Report()
    pairs = operands()
    for n in (0, 1, 255, 256, 257, 511, 513, 2049):
        pairs[f"first {n}"] = [array[:n].copy() for array in pairs["normal"]]
    for name, arrays in pairs.items():
        check_dot_of(device, host, name, [array[:300_001] for array in arrays], report)
    return report.finish()


def check_dot_of(device, host, name: str, arrays: list[np.ndarray], report: Report) -> None:
    n = arrays[0].size
    sizes = {"n": n}
    one = (1, 1, 1)
    row = host.kernels()["tqx_dot_seq_kernel"]
    expected = run_kernel(host, row, arrays, sizes, one, one)
    actual = run_kernel(device, row, arrays, sizes, one, one)
    report.same_arrays(f"{name}, sequential", actual, expected)
    row = host.kernels()["tqx_dot_kernel"]
    expected = run_kernel(host, row, arrays, sizes, one, (row.block, 1, 1))
    for blocks in (1, 7, max(1, -(-n // row.block))):
        actual = run_kernel(device, row, arrays, sizes, (blocks, 1, 1), (row.block, 1, 1))
        report.same_arrays(f"{name}, {blocks} blocks", actual, expected)


SINGLE_BLOCK_KERNELS = ("var", "norm", "prod", "cumsum", "logsumexp", "rms_norm")


def check_reductions(device, host, most: int = 20_000) -> dict:
    """The kernels of a single block, on the ends of blocks and on every pair of operands."""
    report = Report()
    arrays = {name: pair[0][:most] for name, pair in operands().items()}
    for n in (0, 1, 2, 31, 1023, 1024, 1025, 2049):
        arrays[f"first {n}"] = arrays["normal"][:n].copy()
    for kernel in SINGLE_BLOCK_KERNELS:
        row = host.kernels()[f"tqx_{kernel}_kernel"]
        for name, values in arrays.items():
            launch = ([values], {"n": values.size}, (1, 1, 1), (row.block, 1, 1))
            expected, actual = run_kernel(host, row, *launch), run_kernel(device, row, *launch)
            report.same_arrays(f"{row.name}, {name}", actual, expected)
    return report.finish()


MATRICES = [(1, 1, 1), (3, 0, 2), (16, 16, 16), (17, 33, 5), (64, 200, 48), (100, 1000, 70)]


def check_matrices(device, host, shapes=MATRICES) -> dict:
    """Matrix products of sizes that are and are not multiples of the tile, ordinary and wild."""
    report = Report()
    draw = np.random.default_rng(SEED + 2)
    row = host.kernels()["tqx_matmul_kernel"]
    tile = 16
    for m, k, n in shapes:
        sizes = {"M": m, "K": k, "N": n}
        for exponents in (0, 60, 1000):
            a, b = (
                draw.standard_normal(count) * 2.0 ** draw.uniform(-exponents, exponents, count)
                for count in (m * k, k * n)
            )
            grid, block = (-(-n // tile), -(-m // tile), 1), (tile, tile, 1)
            expected = run_kernel(host, row, [a, b], sizes, grid, block)
            actual = run_kernel(device, row, [a, b], sizes, grid, block)
            what = f"{m} x {k} x {n}, exponents up to {exponents}"
            report.same_arrays(what, actual, expected)
    return report.finish()


def check_elementwise(device, host) -> dict:
    """Every kernel of that kind on every pair of operands, device against host, bit for bit."""
    report = Report()
    digests = {}
    for row in elementwise_kernels(host):
        for name, arrays in operands().items():
            n = arrays[0].size
            expected = run_elementwise(host, row, arrays, (1, 1, 1))
            digests[f"{row.name}, {name}"] = hashlib.sha256(expected.tobytes()).hexdigest()
            for blocks in (-(-n // row.block), 3):
                actual = run_elementwise(device, row, arrays, (blocks, 1, 1))
                report.same_arrays(f"{row.name}, {name}, {blocks} blocks", actual, expected)
    return report.finish(digests_of_host_results=digests)


def check_grids(device, host) -> dict:
    """Grid clamps, larger grids than needed, other blocks; and launches that follow at once."""
    report = Report()
    found = inputs()
    shaped = {name: found[name] for name in ("120 binades", "any bits", "first 257", "first 0")}
    clamps = [1, 2, 3, *(device.multiprocessors * each for each in (1, 2, 4, 8, 16, 32)), 40_000]
    grids = [(clamp, 1, 1) for clamp in clamps] + [(5, 3, 2), (1, 1, 7)]
    blocks = [(32, 1, 1), (64, 1, 1), (96, 1, 1), (128, 1, 1), (256, 1, 1), (16, 8, 2)]
    for name, values in shaped.items():
        with Sums(host, values) as sums:
            four, two = sums.sequential(), sums.parallel()
        with Sums(device, values) as sums:
            for grid, block in itertools.product(grids, blocks):
                report.same(f"{name}, {grid}, {block}", sums.parallel(grid, block), two)
            for grid, block in [((1, 1, 1), (32, 1, 1)), ((9, 2, 2), (64, 2, 2))]:
                report.same(f"{name}, {grid}, {block}", sums.sequential(grid, block), four)
    check_launches_in_a_row(device, host, list(shaped.values()), report)
    check_launch_shapes(device, host, report)
    return report.finish()


def check_launch_shapes(device, host, report: Report, n: int = 3001) -> None:
    """Every kernel on every such grid and block: the same bits as on the host."""
    for row in host.kernels().values():
        sources, sizes = small_launch(row, operands()["any bits"], n)
        grid, block = launch_shapes(row)[0]
        expected = run_kernel(host, row, sources, sizes, grid, block)
        for grid, block in launch_shapes(row):
            actual = run_kernel(device, row, sources, sizes, grid, block)
            report.same_arrays(f"{row.name}, grid {grid}, block {block}", actual, expected)


def check_launches_in_a_row(device, host, arrays: list[np.ndarray], report: Report) -> None:
    """Enqueued without waiting, so that each finds the workspace as the one before left it."""
    all_sums = [Sums(device, values) for values in arrays]
    for _ in range(20):
        for sums in all_sums:
            sums.start_parallel()
    for values, sums in zip(arrays, all_sums, strict=True):
        with Sums(host, values) as host_sums, sums:
            report.same("launches in a row", sums.results(), host_sums.parallel())


def check_nan(device, host) -> dict:
    """Whatever NaN goes in, and where: the one that comes out has always the same bits."""
    report = Report()
    payloads = [NAN, NAN | 1 << 63, 0x7FF0000000000001, 0xFFF0000000000001, 0x7FFFFFFFFFFFFFFF]
    for payload, place in itertools.product(payloads, (0, 1, 511, 4095, 99_999)):
        values = np.ones(100_000)
        values[place : place + 1].view(np.uint64)[0] = payload
        with Sums(device, values) as sums:
            what = f"{payload:#x} at {place}"
            report.same(what, sums.sequential(), [NAN, 0, 0, 0])
            report.same(what, sums.parallel(), [NAN, 0])
    check_nan_of_all(device, host, payloads, report)
    return report.finish()


def check_nan_of_all(device, host, payloads: list[int], report: Report) -> None:
    """Every kernel: its results hold a NaN, and each has those bits; neg alone passes NaN on."""
    values = np.linspace(-3.0, 3.0, 600)
    values[::7].view(np.uint64)[:] = np.resize(np.array(payloads, dtype=np.uint64), 86)
    for row in host.kernels().values():
        sources, sizes = small_launch(row, [values, values[::-1].copy()], values.size)
        grid, block = launch_shapes(row)[0]
        expected = run_kernel(host, row, sources, sizes, grid, block)
        actual = run_kernel(device, row, sources, sizes, grid, block)
        report.same_arrays(f"{row.name}, NaN of all kinds", actual, expected)
        patterns = {int(word) for word in actual[np.isnan(actual.view(np.float64))]}
        if row.name == "tqx_neg_kernel":
            given = {int(word) ^ 1 << 63 for word in values[np.isnan(values)].view(np.uint64)}
            report.same(f"{row.name}, NaN with the other sign", sorted(patterns), sorted(given))
        else:
            report.same(f"{row.name}, the one NaN", sorted(patterns), [NAN])


def check_large(device, host) -> dict:
    """More elements than 32 bits can count, all alike, so that the sum is known."""
    report = Report()
    word = 0x3FF55555
    value = np.full(2, word, dtype=np.uint32).view(np.float64)[0].item()
    count = 2**31 + 12_345 if device.is_gpu else 2**20 + 12_345
    expected = exact_arithmetic.canonical_limbs(exact_arithmetic.exact_sum([value]) * count, 2)
    with Sums(device, count) as sums:
        device.fill(sums.x, word, count)
        for grid in (None, (8 * device.multiprocessors, 1, 1)):
            report.same(f"{count} elements, {grid}", sums.parallel(grid), bits(np.array(expected)))
    return report.finish(elements=count)


def check_division(device, host) -> dict:
    """torch's division by a number on the GPU against the rule of the emulated device."""
    import torch

    from korvex.emulation import _reciprocals

    report = Report()
    generator = torch.Generator().manual_seed(SEED)
    divisors = [3, 7, 10, 1000, 0.1, 1e-3, 3.0, -9.7, 1e300, 1e-300, 5e-324, 2.0**-1030, 2**53 + 1]
    rows = {}
    for dtype in (torch.float64, torch.float32, torch.float16, torch.bfloat16, torch.int64):
        host_values = torch.randn(100_000, dtype=torch.float64, generator=generator) * 1000
        host_values = host_values.to(dtype)
        for divisor in [*divisors, torch.tensor(3.7, dtype=torch.float64), 1 + 2j]:
            if isinstance(divisor, complex) and dtype.itemsize == 2:
                continue  # the emulated device has no rule for complex halves
            differing, from_division = division_case(
                _reciprocals, torch, host_values, divisor, device.is_gpu
            )
            what = f"{dtype} / {divisor}"
            rows[what] = {"differ": differing, "rule_differs_from_division": from_division}
            report.same(what, [differing], [0])
    return report.finish(cases=rows)


def division_case(rule, torch, host_values, divisor, on_gpu: bool) -> tuple[int, int]:
    """How many quotients differ from the rule's, and how many of the rule's from a division."""
    by_rule = rule.quotient(host_values, divisor)
    actual = (host_values.cuda() / divisor).cpu() if on_gpu else by_rule.clone()
    divided = host_values / divisor
    if actual.dtype != by_rule.dtype:
        return host_values.numel(), -1
    return different(torch, actual, by_rule), different(torch, divided, by_rule)


def different(torch, a, b) -> int:
    """How many elements do not agree in every bit; all NaNs count as equal."""
    if a.is_complex():
        a, b = torch.view_as_real(a), torch.view_as_real(b)
    same_nan = torch.isnan(a) & torch.isnan(b)
    signs = torch.signbit(a) == torch.signbit(b)
    return int((~(same_nan | ((a == b) & signs))).sum())


def check_sanitizer(device, host) -> dict:
    """A little of everything for compute-sanitizer, which is slow: each way through each kernel."""
    report = Report()
    found = inputs()
    for name in ("normal", "120 binades", "any bits", "levels", "nan", "overflow", "first 257"):
        values = found[name][:20_011]
        with Sums(host, values) as sums:
            four, two = sums.sequential(), sums.parallel()
        for row in elementwise_kernels(host):
            arrays = [values, values[::-1].copy()]
            expected = run_elementwise(host, row, arrays, (1, 1, 1))
            actual = run_elementwise(device, row, arrays, (7, 1, 1))
            report.same_arrays(f"{row.name}, {name}", actual, expected)
        check_dot_of(device, host, name, [values, values[::-1].copy()], report)
        with Sums(device, values, 1) as sums:
            report.same(f"{name}, sequential", sums.sequential(), four)
            report.same(f"{name}, parallel", sums.parallel(), two)
            report.same(f"{name}, 5 blocks", sums.parallel((5, 1, 1)), two)
    for figures in (
        check_matrices(device, host, MATRICES[:4]),
        check_reductions(device, host, 2500),
    ):
        report.compared += figures["compared"]
        report.wrong += figures["wrong"]
    return report.finish()


CHECKS = {
    "sums": check_sums,
    "elementwise": check_elementwise,
    "dots": check_dots,
    "matrices": check_matrices,
    "reductions": check_reductions,
    "grids": check_grids,
    "nan": check_nan,
    "large": check_large,
    "division": check_division,
    "sanitizer": check_sanitizer,
}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("check", choices=CHECKS)
    parser.add_argument("--emulated", action="store_true")
    options = parser.parse_args()
    device = choose_device(options.emulated)
    from korvex.emulation._library import best_instruction_set

    figures = CHECKS[options.check](device, HostDevice(best_instruction_set()))
    print(json.dumps(figures))
    return 1 if figures["wrong"] or figures["compared"] == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
