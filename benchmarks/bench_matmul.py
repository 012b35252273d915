# SPDX-License-Identifier: Apache-2.0
"""How fast is an exact matrix product on the emulated device?

Against `torch.matmul` in float64, against a product in two doubles per element written with torch
operations, and on the smallest size against `Fraction`. Exact elements are compared with rational
arithmetic before anything is timed. A second part compares the two ways of the kernel, by slices
and by residues, on many shapes: with each other, with `torch.matmul`, and with integer matrices of
FLINT where python-flint is installed. `--fma` compares them in the libraries for processors without
AVX-512 VNNI, where residues are multiplied as doubles.
"""

import argparse
import ctypes
import os
import random
from collections.abc import Callable
from fractions import Fraction
from typing import Any

import torch
from plain_products import double_double, rational

from korvex import exact
from korvex.emulation._library import HostLibrary, best_instruction_set, usable_instruction_sets
from korvex_tools.figures.command import host_parser, record
from korvex_tools.figures.timing import (
    Timing,
    measure,
    nanoseconds,
    print_table,
    print_targets,
    threads_target,
    times_target,
)

SEED = 20050601
KERNEL = "tqx_matmul_kernel"
MANY = 2  # threads of the parallel candidate
# Nanoseconds for a multiply-add of N(0,1) on one thread, at most.
MOST_NANOSECONDS, MOST_NANOSECONDS_PLAIN = 1.5, 4.0  # best and plain instruction set
JUDGED_FROM = 128  # below, the start of a thread shows
LARGEST_FOR_TORCH_PAIRS = 512
FRACTION_SIZE = 24

# The ways of launch.h.
CHOSEN, BY_SLICES, IN_DOUBLES = 0, 1, 3
# By residues, where the processor can: against slices and against torch.matmul, on processor time.
JUDGED_WAYS_FROM = 512
TIMES_OF_SLICES, TIMES_OF_TORCH, TIMES_ON_TWO_THREADS = 3.0, 7.0, 1.6
SQUARES = (1, 2, 4, 8, 16, 24, 32, 48, 64, 96, 128, 256, 512, 1024)
# Rows, columns, products of an element: tall, flat, long and short ones.
OTHER_SHAPES = ((2000, 16, 64), (16, 2000, 64), (512, 4, 512), (4, 512, 512), (1, 512, 512),
                (512, 1, 512), (64, 64, 2000), (16, 16, 4096), (500, 500, 8))  # fmt: skip
LARGEST_FOR_FLINT, LARGEST_FOR_PAIRS = 256, 128
NORMAL, WIDE, MIXED = "N(0,1)", "N(0,1) * 2^U(-30,30)", "N(0,1), one row times 2^U(-100,100)"
MIXED_SIZES = (256, 512)
# One wild row goes by slices; all others take what they take without it.
TIMES_OF_PARTS = 1.1
# Residues in doubles are worth having from here on, where the products are large.
TIMES_OF_SLICES_IN_DOUBLES = 1.3
BATCHES = ((64, 16), (64, 48))  # matrices, and their size
LEAST_PRODUCTS, MOST_CALLS = 1 << 14, 100  # of what is timed at a time
REPEATS_OF_LARGE = 3  # from 1024 on

Candidates = dict[str, Callable[[], Any]]


def matrices(size: int) -> tuple[torch.Tensor, torch.Tensor]:
    generator = torch.Generator().manual_seed(SEED + size)
    return tuple(torch.randn(size, size, generator=generator, dtype=torch.float64) for _ in "ab")


# --- Candidates


def kernel_call(
    library: HostLibrary, a: torch.Tensor, b: torch.Tensor, threads: int
) -> Callable[[], list[torch.Tensor]]:
    """A function that launches the kernel; it returns the three limbs."""
    row = library.kernels[KERNEL]
    m, k = a.shape
    n = b.shape[1]
    limbs = [torch.zeros(m, n, dtype=torch.float64) for _ in range(3)]
    grid = ((n + 15) // 16, (m + 15) // 16, 1)

    def call() -> list[torch.Tensor]:
        library.threads = threads
        pointers = [ctypes.c_void_p(array.data_ptr()) for array in (a, b, *limbs)]
        library.launch(row, grid, (16, 16, 1), [*pointers, *map(ctypes.c_int64, (m, n, k))])
        return limbs

    return call


def exact_candidates(a: torch.Tensor, b: torch.Tensor) -> Candidates:
    best = best_instruction_set()
    candidates: Candidates = {}
    for instruction_set in usable_instruction_sets():
        library = HostLibrary(instruction_set, 1)
        candidates[f"{KERNEL}, {instruction_set}, 1 thread"] = kernel_call(library, a, b, 1)
    candidates[f"{KERNEL}, {best}, {MANY} threads"] = kernel_call(HostLibrary(best, 1), a, b, MANY)
    return candidates


def torch_call(a: torch.Tensor, b: torch.Tensor) -> Callable[[], torch.Tensor]:
    def call() -> torch.Tensor:
        torch.set_num_threads(1)
        return torch.matmul(a, b)

    return call


def all_candidates(a: torch.Tensor, b: torch.Tensor) -> Candidates:
    candidates: Candidates = {"torch.matmul, 1 thread": torch_call(a, b)}
    if a.shape[0] <= LARGEST_FOR_TORCH_PAIRS:
        candidates["two doubles in torch, 1 thread"] = lambda: double_double(a, b)
    if a.shape[0] <= FRACTION_SIZE:
        candidates["Fraction"] = lambda: rational(a, b)
    return candidates | exact_candidates(a, b)


# --- The ways of the kernel


def operands(m: int, n: int, k: int, data: str) -> tuple[torch.Tensor, torch.Tensor]:
    generator = torch.Generator().manual_seed(SEED + m + n + k)
    a, b = (torch.randn(*e, generator=generator, dtype=torch.float64) for e in ((m, k), (k, n)))

    def powers(x: torch.Tensor, low: int, high: int) -> torch.Tensor:
        drawn = torch.rand(x.shape, generator=generator, dtype=x.dtype)
        return torch.exp2(low + (high - low) * drawn)

    if data == WIDE:
        a, b = a * powers(a, -30, 30), b * powers(b, -30, 30)
    if data == MIXED:
        a[m // 2] *= powers(a[m // 2], -100, 100)
    return a, b


def on_way(call: Callable[[], Any], library: HostLibrary, way: int) -> Callable[[], Any]:
    """The same call, taken by one way of matrix products."""
    functions = ctypes.CDLL(str(library.path))

    def called() -> Any:
        functions.korvex_host_set_product_way(way)
        try:
            return call()
        finally:
            functions.korvex_host_set_product_way(CHOSEN)

    return called


def flint_call(a: torch.Tensor, b: torch.Tensor) -> Callable[[], Any] | None:
    """Integer matrices of FLINT, the elements scaled to integers before; None without it."""
    try:
        from flint import fmpz_mat
    except ImportError:
        return None
    scaled = [
        fmpz_mat([[int(Fraction(value) * 2**1074) >> 900 for value in row] for row in x.tolist()])
        for x in (a, b)
    ]
    return lambda: scaled[0] * scaled[1]


def way_candidates(a: torch.Tensor, b: torch.Tensor) -> Candidates:
    library = HostLibrary(best_instruction_set(), 1)
    one, many = kernel_call(library, a, b, 1), kernel_call(library, a, b, MANY)
    candidates: Candidates = {
        "torch.matmul": torch_call(a, b),
        "by slices": on_way(one, library, BY_SLICES),
        "as chosen": on_way(one, library, CHOSEN),
        f"as chosen, {MANY} threads": on_way(many, library, CHOSEN),
    }
    largest = max(*a.shape, *b.shape)
    flint = flint_call(a, b) if largest <= LARGEST_FOR_FLINT else None
    peers: Candidates = {"FLINT integers": flint} if flint else {}
    if largest <= LARGEST_FOR_PAIRS:
        peers["two doubles in torch"] = lambda: double_double(a, b)
    if largest <= FRACTION_SIZE:
        peers["Fraction"] = lambda: rational(a, b)
    return candidates | peers


def again(call: Callable[[], Any], times: int) -> Callable[[], Any]:
    def called() -> None:
        for _ in range(times):
            call()

    return called


def check_ways(a: torch.Tensor, b: torch.Tensor) -> None:
    """Both ways leave the same bits."""
    candidates = way_candidates(a, b)
    by_slices = [limb.clone() for limb in candidates["by slices"]()]
    for name in ("as chosen", f"as chosen, {MANY} threads"):
        for limb, expected in zip(candidates[name](), by_slices, strict=True):
            if not torch.equal(limb.view(torch.int64), expected.view(torch.int64)):
                raise AssertionError(f"{name} differs, {tuple(a.shape)} by {tuple(b.shape)}")


def run_ways(shape: tuple[int, int, int], data: str, repeats: int) -> dict[str, Any]:
    m, n, k = shape
    a, b = operands(m, n, k, data)
    check_ways(a, b)
    candidates = way_candidates(a, b)
    if data == MIXED:
        tame = operands(m, n, k, NORMAL)
        candidates["as chosen, N(0,1)"] = way_candidates(*tame)["as chosen"]
        wild = a[m // 2 : m // 2 + 1]
        candidates["the wild row alone"] = way_candidates(wild, b)["by slices"]
    row = {"rows": m, "columns": n, "products": k, "data": data}
    row |= times_of_ways(candidates, m * n * k, repeats)
    return row | {"targets": judge_ways(row)}


def run_batch(count: int, size: int, repeats: int) -> dict[str, Any]:
    """exact.matmul of many small matrices, which must not be slower for the choice."""
    generator = torch.Generator().manual_seed(SEED + count)
    shape = (count, size, size)
    a, b = (torch.randn(*shape, generator=generator, dtype=torch.float64) for _ in "ab")
    library = HostLibrary(best_instruction_set(), 1)

    def call() -> Any:
        return exact.matmul(a, b)

    candidates = {
        "torch.matmul": torch_call(a, b),
        "by slices": on_way(call, library, BY_SLICES),
        "as chosen": on_way(call, library, CHOSEN),
    }
    row = {"matrices": count, "rows": size, "columns": size, "products": size, "data": NORMAL}
    return row | times_of_ways(candidates, count * size**3, repeats) | {"targets": []}


def times_of_ways(candidates: Candidates, products: int, repeats: int) -> dict[str, Any]:
    # A short call is timed many times in a row: what ran before it shows in the first ones.
    times = max(1, min(MOST_CALLS, LEAST_PRODUCTS // products))
    products *= times
    timings = measure({name: again(call, times) for name, call in candidates.items()}, repeats)
    return {
        "ns_per_multiply_add_processor": {
            name: nanoseconds(timing.processor_least, products) for name, timing in timings.items()
        },
        "ns_per_multiply_add_least": {
            name: nanoseconds(timing.least, products) for name, timing in timings.items()
        },
    }


def judge_ways(row: dict[str, Any]) -> list[dict[str, Any]]:
    if min(row["rows"], row["columns"], row["products"]) < JUDGED_WAYS_FROM or not has_residues():
        return []
    took, clock = row["ns_per_multiply_add_processor"], row["ns_per_multiply_add_least"]
    name = f"as chosen, n = {row['rows']}, {row['data']}"
    if row["data"] == MIXED:
        parts = "N(0,1) and the wild row"
        took[parts] = took["as chosen, N(0,1)"] + took["the wild row alone"]
        targets = [
            times_target(took, "as chosen", parts, TIMES_OF_PARTS)
            | {"candidate": f"{name}, beside {parts}"}
        ]
    else:
        gain = round(took["by slices"] / took["as chosen"], 2)
        two = clock[f"as chosen, {MANY} threads"]
        targets = [
            {
                "candidate": name,
                "times_of_slices_at_least": TIMES_OF_SLICES,
                "times_of_slices": gain,
                "met": gain >= TIMES_OF_SLICES,
            },
            threads_target(name, clock["as chosen"], two, TIMES_ON_TWO_THREADS),
            times_target(took, "as chosen", "torch.matmul", TIMES_OF_TORCH)
            | {"candidate": f"{name}, beside torch.matmul"},
        ]
    print_targets(targets)
    return targets


def has_residues() -> bool:
    library = HostLibrary(best_instruction_set(), 1)
    return residues_of(library) == "bytes"


def residues_of(library: HostLibrary) -> str:
    function = ctypes.CDLL(str(library.path)).korvex_host_residues_of_products
    function.restype = ctypes.c_char_p
    return function().decode()


def print_ways(runs: list[dict[str, Any]]) -> None:
    names = ["torch.matmul", "by slices", "as chosen", "FLINT integers", "two doubles in torch"]
    names.append("Fraction")
    rows = []
    for run in runs:
        took = run["ns_per_multiply_add_processor"]
        rows.append(
            [
                (f"{run['matrices']} of " if "matrices" in run else "")
                + f"{run['rows']} x {run['columns']} x {run['products']}",
                run["data"],
                *(f"{took[name]:.4g}" if name in took else "" for name in names),
                f"{took['by slices'] / took['as chosen']:.2f}",
                f"{took['as chosen'] / took['torch.matmul']:.2f}",
            ]
        )
    print_table(
        "Ways of the kernel, 1 thread, least processor time, ns per multiply-add",
        ["rows x columns x products", "data", *names, "gain", "times torch"],
        rows,
    )


# --- Residues in doubles, for processors without VNNI


def compare_in_doubles(largest: int, repeats: int) -> None:
    """The ways of the library for FMA, and of that for AVX-512 as if there were no VNNI."""
    if os.environ.get("MKL_ENABLE_INSTRUCTIONS") != "AVX2":
        raise SystemExit("set MKL_ENABLE_INSTRUCTIONS=AVX2, so that torch uses FMA as well")
    sets = [name for name in usable_instruction_sets() if name != "base"]
    squares = [(size, size, size) for size in SQUARES if size <= largest]
    others = [shape for shape in OTHER_SHAPES if max(shape) <= 4 * largest]
    for instruction_set in sets:
        library = HostLibrary(instruction_set, 1)
        way = CHOSEN if residues_of(library) == "doubles" else IN_DOUBLES
        runs = [
            run_in_doubles(library, way, shape, data, repeats)
            for shape in squares + others
            for data in (NORMAL, WIDE)
        ]
        chosen = "as chosen" if way == CHOSEN else "in doubles"
        print_table(
            f"Library {instruction_set}, residues in doubles, 1 thread, least processor time, "
            "ns per multiply-add",
            ["rows x columns x products", "data", "torch, FMA", "by slices", chosen, "gain"],
            [row for row, _ in runs],
        )
        print_targets([target for _, targets in runs for target in targets])


def run_in_doubles(
    library: HostLibrary, way: int, shape: tuple[int, int, int], data: str, repeats: int
) -> tuple[list[str], list[dict[str, Any]]]:
    m, n, k = shape
    a, b = operands(m, n, k, data)
    call = kernel_call(library, a, b, 1)
    candidates: Candidates = {
        "torch.matmul": torch_call(a, b),
        "by slices": on_way(call, library, BY_SLICES),
        "in doubles": on_way(call, library, way),
    }
    expected = [limb.clone() for limb in candidates["by slices"]()]
    for limb, other in zip(candidates["in doubles"](), expected, strict=True):
        if not torch.equal(limb.view(torch.int64), other.view(torch.int64)):
            raise AssertionError(f"residues in doubles differ, {shape}")
    took = times_of_ways(candidates, m * n * k, repeats)["ns_per_multiply_add_processor"]
    gain = took["by slices"] / took["in doubles"]
    targets = [
        {
            "candidate": f"{library.path.name}, n = {m}, {data}",
            "times_of_slices_at_least": TIMES_OF_SLICES_IN_DOUBLES,
            "times_of_slices": round(gain, 2),
            "met": gain >= TIMES_OF_SLICES_IN_DOUBLES,
        }
    ]
    row = [f"{m} x {n} x {k}", data, *(f"{time:.4g}" for time in took.values()), f"{gain:.2f}"]
    return row, targets if min(shape) >= JUDGED_WAYS_FROM else []


# --- One size


def check_results(a: torch.Tensor, b: torch.Tensor) -> None:
    """A few elements: the sum of the three limbs is exact, or within the last limb's ulp."""
    source = random.Random(SEED)
    places = [(source.randrange(a.shape[0]), source.randrange(b.shape[1])) for _ in range(8)]
    for name, call in exact_candidates(a, b).items():
        limbs = call()
        for i, j in places:
            [[expected]] = rational(a[i : i + 1], b[:, j : j + 1])
            found = sum(Fraction(limb[i, j].item()) for limb in limbs)
            if abs(found - expected) > abs(expected) / 2**159:
                raise AssertionError(f"{name}, element {i}, {j}: off by {float(found - expected)}")


def run_size(size: int, options: argparse.Namespace) -> dict[str, Any]:
    """Times all candidates on one size, and prints the table."""
    a, b = matrices(size)
    check_results(a, b)
    timings = measure(all_candidates(a, b), options.repeats)
    results = [result_row(label, timing, size**3) for label, timing in timings.items()]
    print_table(
        f"{size} x {size} x {size}, median of {options.repeats}, ns per multiply-add",
        ["candidate", "median", "least", "most", "processor"],
        [
            [label, *(f"{time:.3f}" for time in figures)]
            for label, *figures in (result.values() for result in results)
        ],
    )
    targets = judge(results) if size >= JUDGED_FROM else []
    return {"size": size, "results": results, "targets": targets}


def result_row(label: str, timing: Timing, products: int) -> dict[str, Any]:
    return {
        "candidate": label,
        "ns_per_multiply_add": nanoseconds(timing.median, products),
        "ns_per_multiply_add_least": nanoseconds(timing.least, products),
        "ns_per_multiply_add_most": nanoseconds(timing.most, products),
        "ns_per_multiply_add_processor": nanoseconds(timing.processor_median, products),
    }


def judge(results: list[dict[str, Any]]) -> list[dict[str, Any]]:
    """Whether one thread is fast enough, by processor time, and what two threads gain."""
    by_name = {result["candidate"]: result for result in results}
    best = best_instruction_set()
    targets = []
    for instruction_set, most in {"base": MOST_NANOSECONDS_PLAIN, best: MOST_NANOSECONDS}.items():
        name = f"{KERNEL}, {instruction_set}, 1 thread"
        met = by_name[name]["ns_per_multiply_add_processor"] <= most
        targets.append({"candidate": name, "ns_at_most": most, "met": met})
    one, many = f"{KERNEL}, {best}, 1 thread", f"{KERNEL}, {best}, {MANY} threads"
    times = (by_name[name]["ns_per_multiply_add_least"] for name in (one, many))
    targets.append(threads_target(many, *times))
    print_targets(targets)
    return targets


def all_ways(options: argparse.Namespace) -> list[dict[str, Any]]:
    squares = [size for size in SQUARES if size <= (32 if options.quick else options.n)]
    squares += [2048] if options.large else []
    shapes = [(size, size, size) for size in squares]
    shapes += [] if options.quick else OTHER_SHAPES
    few = min(options.repeats, REPEATS_OF_LARGE)
    ways = [
        run_ways(shape, data, few if min(shape) >= 1024 else options.repeats)
        for shape in shapes
        for data in (NORMAL, WIDE)
    ]
    if not options.quick:
        mixed = [size for size in MIXED_SIZES if size <= options.n]
        ways += [run_ways((size, size, size), MIXED, options.repeats) for size in mixed]
        ways += [run_batch(count, size, options.repeats) for count, size in BATCHES]
    return ways


def main() -> None:
    parser = host_parser(__doc__, 1024, "largest size", 15)
    parser.add_argument("--large", action="store_true", help="also 2048; takes minutes")
    parser.add_argument("--ways", action="store_true", help="the two ways alone, not recorded")
    parser.add_argument(
        "--fma", action="store_true", help="residues in doubles alone, not recorded"
    )
    options = parser.parse_args()
    if options.fma:
        return compare_in_doubles(options.n, options.repeats)
    sizes = [size for size in (FRACTION_SIZE, 64, 128, 256, 512) if size <= options.n]
    if options.quick:
        sizes, options.repeats = [FRACTION_SIZE], min(options.repeats, 3)
    elif options.large:
        sizes.append(2048)
    runs = [] if options.ways else [run_size(size, options) for size in sizes]
    ways = all_ways(options)
    print_ways(ways)
    if options.ways:
        return
    settings = {"n": sizes[-1], "sizes": sizes, "repeats": options.repeats, "seed": SEED}
    record("bench_matmul", options, settings, runs=runs, ways=ways)


if __name__ == "__main__":
    main()
