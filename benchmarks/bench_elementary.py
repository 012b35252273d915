# SPDX-License-Identifier: Apache-2.0
"""What correctly rounded exp, log, sqrt, sigmoid and tanh cost on the host, and who misrounds.

The kernels of all host libraries against torch, NumPy and mpmath (53 bits), in turns, on one
thread; with the share of inputs that need the accurate phase, and of results that each candidate
rounds wrongly, judged by MPFR. `--binades` times each binade of arguments instead, and prints the
slowest of each function.
"""

import ctypes

import numpy as np
import torch

from korvex.emulation._library import HostLibrary, best_instruction_set, usable_instruction_sets
from korvex_tools.elementary.probe import Probe
from korvex_tools.figures.command import cut_short, host_parser, record
from korvex_tools.figures.timing import measure, print_table, print_targets
from korvex_tools.references import elementary_reference as reference

SEED = 1991
SLOW = 2_000  # elements for what works one by one
# Nanoseconds an element on one thread with the best instruction set, by function: at most.
MOST_NANOSECONDS = {"exp": 10.0, "log": 10.0}
JUDGED_FROM = 100_000  # elements

INPUTS = {
    "exp, [-700, 700]": ("exp", lambda rng, n: rng.uniform(-700, 700, n)),
    "exp, [-1, 1]": ("exp", lambda rng, n: rng.uniform(-1, 1, n)),
    "log, all binades": ("log", lambda rng, n: np.exp2(rng.uniform(-1000, 1000, n))),
    "log, [1/2, 2]": ("log", lambda rng, n: rng.uniform(0.5, 2, n)),
    "sqrt, [0, 100]": ("sqrt", lambda rng, n: rng.uniform(0, 100, n)),
    "sigmoid, [-30, 30]": ("sigmoid", lambda rng, n: rng.uniform(-30, 30, n)),
    "tanh, [-10, 10]": ("tanh", lambda rng, n: rng.uniform(-10, 10, n)),
    "tanh, [-0.4, 0.4]": ("tanh", lambda rng, n: rng.uniform(-0.4, 0.4, n)),
}


def numpy_function(name):
    return (lambda x: 1 / (1 + np.exp(-x))) if name == "sigmoid" else getattr(np, name)


def mpmath_function(name):
    try:
        import mpmath
    except ImportError:
        return None
    function = getattr(mpmath.mp, name, None) or (lambda v: 1 / (1 + mpmath.exp(-v)))
    return lambda x: np.array([float(function(mpmath.mpf(v))) for v in x[:SLOW].tolist()])


def kernel_call(instruction_set, name, x):
    library, out = HostLibrary(instruction_set, 1), np.empty_like(x)
    row = library.kernels[f"tqx_{name}_kernel"]
    pointers = [ctypes.c_void_p(array.ctypes.data) for array in (x, out)]

    def call():
        library.launch(row, (1, 1, 1), (row.block, 1, 1), [*pointers, ctypes.c_int64(len(x))])
        return out

    return call


def candidates_of(name, x):
    tensor = torch.from_numpy(x)
    candidates = {
        f"tqx_{name}_kernel, {chosen}": kernel_call(chosen, name, x)
        for chosen in reversed(usable_instruction_sets())
    }
    candidates["torch"] = lambda: getattr(torch, name)(tensor).numpy()
    candidates["NumPy"] = lambda: numpy_function(name)(x)
    if by_mpmath := mpmath_function(name):
        candidates["mpmath, 53 bits"] = lambda: by_mpmath(x)
    return candidates


def run(label, options, probe):
    name, draw = INPUTS[label]
    x = draw(np.random.default_rng(SEED), options.n)
    expected = np.array(reference.REFERENCE[name](x.tolist()))
    candidates = candidates_of(name, x)
    timings = measure(candidates, options.repeats)
    rows, misrounded = [], {}
    for candidate, call in candidates.items():
        result = call()
        count = len(result)
        wrong = int(np.count_nonzero(result != expected[:count]))
        if candidate.startswith("tqx") and wrong:
            raise AssertionError(f"{candidate}: {wrong} of {count} are not correctly rounded")
        misrounded[candidate] = wrong / count
        timing = timings[candidate]
        rows.append(
            {
                "candidate": candidate,
                "ns_per_element": round(timing.median / count * 1e9, 2),
                "ns_per_element_processor": round(timing.processor_median / count * 1e9, 2),
                "ns_per_element_least": round(timing.processor_least / count * 1e9, 2),
            }
        )
    accurate = 0.0
    if name != "sqrt":
        accurate = probe.undecided(name, np.abs(x) if name == "tanh" else x) / len(x)
    print_table(
        f"{label}, n = {options.n}; accurate phase for {accurate:.1e}",
        ["candidate", "ns", "processor ns", "least", "misrounded"],
        [
            [candidate, *(f"{figure:.2f}" for figure in figures), f"{misrounded[candidate]:.3%}"]
            for candidate, *figures in map(dict.values, rows)
        ],
    )
    return {
        "input": label,
        "share_of_accurate_phase": accurate,
        "share_misrounded": misrounded,
        "results": rows,
        "targets": judge(name, rows) if options.n >= JUDGED_FROM else [],
    }


def judge(name, rows):
    """Whether one thread is fast enough, by processor time."""
    judged = f"tqx_{name}_kernel, {best_instruction_set()}"
    [time] = [row["ns_per_element_processor"] for row in rows if row["candidate"] == judged]
    most = MOST_NANOSECONDS.get(name)
    targets = [{"candidate": judged, "ns_at_most": most, "met": time <= most}] if most else []
    print_targets(targets)
    return targets


# Usual arguments, to which the time of each binade is compared.
USUAL = {"exp": (-1, 1), "log": (0.5, 2), "sigmoid": (-3, 3), "tanh": (-1, 1)}
MOST_OF_USUAL = 3.0


def binades(name):
    """Label and sign of 2^k: exponents of positive arguments, and of negative ones but for log."""
    signs = (1,) if name == "log" else (1, -1)
    lower = [*range(-1074, -64, 40), *range(-64, 12), *range(12, 1024, 40), 1023]
    return [(sign, exponent) for sign in signs for exponent in lower]


def run_binades(name, instruction_set, options):
    """The least time of each binade of arguments, and of zeros, over that of usual arguments."""
    generator = np.random.default_rng(SEED)
    arguments = {"usual": generator.uniform(*USUAL[name], options.n), "0": np.zeros(options.n)}
    for sign, exponent in binades(name):
        x = np.ldexp(sign * generator.uniform(1, 2, options.n), exponent)
        arguments[f"{'-' if sign < 0 else ''}2^{exponent}"] = x
    if name == "log":  # binades of |x - 1|
        for sign in (1, -1):
            for exponent in range(-52, -1):
                offset = np.ldexp(sign * generator.uniform(1, 2, options.n), exponent)
                arguments[f"1 {'-' if sign < 0 else '+'} 2^{exponent}"] = 1 + offset
    calls = {label: kernel_call(instruction_set, name, x) for label, x in arguments.items()}
    timings = measure(calls, options.repeats)
    usual = timings.pop("usual").processor_least
    ratios = {label: timing.processor_least / usual for label, timing in timings.items()}
    worst = max(ratios, key=ratios.__getitem__)
    return {
        "function": name,
        "instruction_set": instruction_set,
        "usual_ns_per_element": round(usual / options.n * 1e9, 2),
        "binades": len(ratios),
        "worst": worst,
        "worst_over_usual": round(ratios[worst], 2),
        "met": ratios[worst] <= MOST_OF_USUAL,
    }


def print_binades(options):
    """The slowest binade of each function; nothing is recorded."""
    rows = [
        run_binades(name, instruction_set, options)
        for name in USUAL
        for instruction_set in reversed(usable_instruction_sets())
    ]
    print_table(
        f"Binades of arguments, n = {options.n}; at most {MOST_OF_USUAL} times the usual time",
        ["kernel", "usual, ns", "binades", "slowest", "over usual", "met"],
        [
            [
                f"tqx_{row['function']}_kernel, {row['instruction_set']}",
                f"{row['usual_ns_per_element']:.2f}",
                str(row["binades"]),
                row["worst"],
                f"{row['worst_over_usual']:.2f}",
                "yes" if row["met"] else "NO",
            ]
            for row in rows
        ],
    )


def main():
    parser = host_parser(__doc__, 400_000, "elements", 9)
    parser.add_argument(
        "--binades", action="store_true", help="the slowest binade of each function alone"
    )
    options = parser.parse_args()
    if options.binades:
        options.n = min(options.n, 20_000)
        print_binades(options)
        return
    cut_short(options, n=20_000, repeats=3)
    torch.set_num_threads(1)
    probe = Probe()
    runs = [run(label, options, probe) for label in INPUTS]
    settings = {"n": options.n, "repeats": options.repeats, "seed": SEED, "threads": 1}
    record("bench_elementary", options, settings, runs=runs)


if __name__ == "__main__":
    main()
