# SPDX-License-Identifier: Apache-2.0
"""Blocks of figures in README.md and docs/performance.md: times beside those of others, targets."""

from typing import Any

from korvex_tools.figures.blocks import Lines, block, folded, machine, short, table
from korvex_tools.figures.records import Records, row


@block
def costs(records: Records) -> Lines:
    """Of `korvex.exact` on one thread, each beside the usual function of the same data."""
    parts = {part["data"]: part for part in records["bench_exact"]["runs"]}
    pairs = [
        ("sum of float64", "sum", "exact.sum", "numpy.sum"),
        ("the same", "sum", "exact.sum", "math.fsum, list"),
        ("sum of float32", "formats", "exact.sum, float32", "numpy.sum, float32"),
        ("dot product", "dot", "exact.vecdot", "numpy.dot"),
        ("variance", "moments", "exact.var", "numpy.var"),
    ]
    rows = []
    for label, data, ours, other in pairs:
        times = [row(parts[data], name)["ns_per_element_processor"] for name in (ours, other)]
        rows.append([label, f"{times[0]:.2f}", f"`{other}` {times[1]:.2f}", ratio_of(*times)])
    count = records["bench_exact"]["settings"]["n"]
    return [
        f"{count:,} numbers of N(0,1), nanoseconds of processor time an element on one thread",
        f"({machine(records, 'bench_exact')}):",
        "",
        *table(["", "`korvex.exact`", "beside it", ""], rows),
    ]


def ratio_of(ours: float, other: float) -> str:
    if round(ours / other, 2) == 1:
        return "the same time"
    if ours > other:
        return f"{ours / other:.2f} times its time"
    return f"{other / ours:.{0 if other > 10 * ours else 2}f} times faster"


@block
def answer_sums(records: Records) -> Lines:
    return answer(records, "sum", "tqx_sum", "an element", "numpy.sum", "math.fsum, list")


@block
def answer_dots(records: Records) -> Lines:
    return answer(records, "dot", "tqx_dot", "a pair", "torch.dot", "math.sumprod, lists")


@block
def answer_products(records: Records) -> Lines:
    names = ("tqx_matmul", "a multiply-add", "torch.matmul", "two doubles in torch")
    return answer(records, "matmul", *names)


def answer(
    records: Records, operation: str, ours: str, step: str, plain: str, careful: str
) -> Lines:
    """At the largest sizes, beside what rounds at every step and beside what does less so."""
    [run] = [run for run in records["bench_curves"]["runs"] if run["operation"] == operation]
    rows = [r for name in (ours, plain, careful) for r in run["results"] if r["candidate"] == name]
    at = {r["candidate"]: r for r in sorted(rows, key=lambda r: r["n"])}
    call = min((r for r in rows if r["candidate"] == ours), key=lambda r: r["n"])
    ns, n = at[ours]["ns_per_step"], at[ours]["n"]
    times = {name: ns / at[name]["ns_per_step"] for name in (plain, careful)}
    said = f"{1 / times[careful]:.0f} times faster than" if times[careful] < 1 else "slower than"
    size = f"n = {n}" if operation == "matmul" else f"{n:,} elements"
    return [
        f"**{ns:.2g} ns {step}** at {size}: {times[plain]:.2g} times the time of `{plain}`, which",
        f"rounds at every step, and {said} `{careful.partition(', ')[0]}`.",
        f"With n = {call['n']} it is {short(call['ns_per_step'])} ns, nearly all of it the call.",
    ]


@block
def targets_met(records: Records) -> Lines:
    met = [cells[-1] == "met" for cells in target_rows(records)]
    missed = "" if all(met) else "; it missed these:"
    return [f"This run met {sum(met)} of {len(met)} targets{missed or '.'}"]


@block
def targets_missed(records: Records) -> Lines:
    missed = [cells[:-1] for cells in target_rows(records) if cells[-1] != "met"]
    return table(["script", "data", "candidate", "target"], missed)


@block
def memory(records: Records) -> Lines:
    rows = [r for r in records["bench_large"]["results"] if r["copies_expected"] == 0]
    names = sorted({f"`{r['candidate']}`" for r in rows})
    most, largest = (max(r[key] for r in rows) for key in ("copies", "n"))
    return [
        f"{', '.join(names)} hold",
        f"{most:.2f} copies of an operand beside it, with up to {largest:,} elements.",
    ]


@block
def gain_of_threads(records: Records) -> Lines:
    gains = sorted(r["times_faster"] for r in records["bench_threads"]["results"])
    return [
        f"Two threads make the kernels {gains[0]:.2f} to {gains[-1]:.2f} times faster,",
        f"half of them {gains[len(gains) // 2]:.2f} times or more.",
    ]


@block
def where(records: Records) -> Lines:
    record = records["figures"]
    host, versions = record["host"], record["host"]["versions"]
    busy = max(r["host"]["load_average_1_minute"] for r in records.all_of_run())
    minutes = sum(part["seconds"] for part in record["parts"]) / 60
    processors = host["processors"]
    return [
        f"All figures are of `make figures` on {record['date'][:10]}, whose parts took",
        f"{minutes:.0f} minutes in all: {host['processor']}, {processors} processors, CPython",
        f"{versions['python']}, torch {versions['torch']}, NumPy {versions['numpy']}. The load",
        f"average reached {busy:.1f}; if it is much above {processors}, other processes were at",
        "work, and only the processor times mean something.",
    ]


@block
def sums(records: Records) -> Lines:
    return time_table(records, "bench_sum", "ns_per_element", "ns an element")


@block
def dots(records: Records) -> Lines:
    return time_table(records, "bench_dot", "ns_per_pair", "ns a pair")


def time_table(records: Records, name: str, key: str, unit: str) -> Lines:
    rows = [
        [part["data"], f"`{r['candidate']}`", short(r[f"{key}_processor"]), short(r[key])]
        for part in records[name]["runs"]
        for r in part["results"]
    ]
    found = table(["data", "candidate", f"{unit}, processor time", "on the clock"], rows)
    return folded(f"All {len(rows)} rows", found)


@block
def products(records: Records) -> Lines:
    key = "ns_per_multiply_add"
    rows = [
        [part["size"], f"`{r['candidate']}`", short(r[f"{key}_processor"]), short(r[key])]
        for part in records["bench_matmul"]["runs"]
        for r in part["results"]
    ]
    columns = ["n", "candidate", "ns a multiply-add, processor time", "on the clock"]
    return folded(f"All {len(rows)} rows", table(columns, rows))


@block
def product_ways(records: Records) -> Lines:
    """The ways of the kernel, on one thread, with what the second one gains."""
    rows = []
    for part in records["bench_matmul"].get("ways", []):
        took, clock = (part[f"ns_per_multiply_add_{key}"] for key in ("processor", "least"))
        two = clock.get("as chosen, 2 threads")
        peers = ("torch.matmul", "FLINT integers", "two doubles in torch", "Fraction")
        many = f"{part['matrices']} of " if "matrices" in part else ""
        rows.append(
            [
                f"{many}{part['rows']} x {part['columns']} x {part['products']}",
                part["data"],
                short(took["by slices"]),
                short(took["as chosen"]),
                f"{took['by slices'] / took['as chosen']:.2f}",
                f"{took['as chosen'] / took['torch.matmul']:.1f}",
                f"{clock['as chosen'] / two:.2f}" if two else "",
                *(short(took[name]) if name in took else "" for name in peers),
            ]
        )
    columns = ["rows x columns x products", "data", "by slices", "as chosen", "times faster"]
    columns += ["times `torch.matmul`", "2 threads, times faster", "`torch.matmul`", "FLINT"]
    columns += ["two doubles", "`Fraction`"]
    return folded(f"All {len(rows)} products", table(columns, rows))


@block
def threads(records: Records) -> Lines:
    rows = [
        [
            f"`{r['candidate']}`",
            r["n"],
            short(r["milliseconds_1_thread"]),
            short(r["milliseconds_2_threads"]),
            f"{r['times_faster']:.2f}",
            f"{r['processors_had']:.2f}",
            f"{r['processor_time_grows_by']:.2f}",
            f"{r['torch_times_faster']:.2f}" if "torch_times_faster" in r else "",
        ]
        for r in records["bench_threads"]["results"]
    ]
    columns = [
        "kernel",
        "n",
        "ms, 1 thread",
        "ms, 2",
        "times faster",
        "processors had",
        "work grows by",
        "torch's operation, times faster",
    ]
    return folded(f"All {len(rows)} kernels", table(columns, rows))


@block
def elementary(records: Records) -> Lines:
    rows = []
    for part in records["bench_elementary"]["runs"]:
        for r in part["results"]:
            wrong = part["share_misrounded"][r["candidate"]]
            time = short(r["ns_per_element_processor"])
            rows.append([part["input"], f"`{r['candidate']}`", time, f"{wrong:.3%}"])
    found = table(["input", "candidate", "ns an element, processor time", "misrounded"], rows)
    return folded(f"All {len(rows)} rows", found)


@block
def elementwise(records: Records) -> Lines:
    rows = [
        [
            f"`{r['candidate']}`",
            short(r["ns_per_element_processor"]),
            short(r["times_torch_processor"]),
        ]
        for part in records["bench_elementwise"]["runs"]
        for r in part["results"]
    ]
    found = table(["candidate", "ns an element, processor time", "times torch"], rows)
    return folded(f"All {len(rows)} rows", found)


@block
def reductions(records: Records) -> Lines:
    rows = [
        [f"`{r['candidate']}`", r["n"], short(r["ns_per_element_processor"])]
        for r in records["bench_reductions"]["results"]
    ]
    found = table(["candidate", "n", "ns an element, processor time"], rows)
    return folded(f"All {len(rows)} rows", found)


@block
def linear(records: Records) -> Lines:
    rows = [
        [f"`{r['candidate']}`", short(r["ms_processor"]), short(r["kilobytes_held"])]
        for part in records["bench_linalg"]["runs"]
        for r in part["results"]
    ]
    found = table(["candidate", "ms, processor time", "kB held"], rows)
    return folded(f"All {len(rows)} rows", found)


@block
def large(records: Records) -> Lines:
    rows = [
        [
            f"`{r['candidate']}`",
            r["n"],
            short(r["seconds"]),
            short(r["torch_seconds"]),
            f"{r['copies']:.2f}",
            r["copies_expected"],
            f"{r['torch_copies']:.2f}",
        ]
        for r in records["bench_large"]["results"]
    ]
    columns = ["function", "n", "s", "torch, s", "copies held", "copies expected", "torch"]
    return folded(f"All {len(rows)} rows", table(columns, rows))


@block
def targets(records: Records) -> Lines:
    rows = target_rows(records)
    found = table(["script", "data", "candidate", "target", ""], rows)
    return folded(f"All {len(rows)} targets", found)


def target_rows(records: Records) -> list[list[str]]:
    rows = []
    for name in records.names():
        record = records[name]
        for part in [*record.get("runs", [record]), *record.get("ways", [])]:
            single = part.get("target")
            found = part.get("targets", []) + ([single] if single else [])
            place = next((str(part[key]) for key in ("data", "size", "input") if key in part), "")
            for target in found:
                what = target.get("candidate") or target.get("case") or "every case"
                what += f", n = {target['n']}" if "n" in target else ""
                aim = ", ".join(aims(target))
                met = "met" if target["met"] else "NOT MET"
                rows.append([f"`{name}`", place, f"`{what}`", aim, met])
    return rows


def aims(target: dict[str, Any]) -> list[str]:
    words = {
        "times_faster_at_least": "at least {:g} times faster than `math.fsum`",
        "times_of_slices_at_least": "at least {:g} times faster than by slices",
        "ns_at_most": "at most {:g} ns",
        "ratio_at_most": "at most {:g} times plain Python",
        "times_on_two_threads_at_least": "two threads: at least {:g} times",
        "copies_at_most": "at most {:g} copies",
        "times_at_most": "at most {:g} times its time",
        "ms_at_most": "at most {:g} ms",
        "megabytes_at_most": "at most {:g} MB beside the operands",
    }
    return [text.format(target[key]) for key, text in words.items() if target.get(key) is not None]


@block
def durations(records: Records) -> Lines:
    rows = [[f"`{part['part']}`", short(part["seconds"])] for part in records["figures"]["parts"]]
    return folded(f"All {len(rows)} parts", table(["part", "s"], rows))
