# SPDX-License-Identifier: Apache-2.0
"""Writes the figures that documents quote from the records, or checks that they agree.

A document marks what is written here: the lines between `<!-- figures: NAME -->` and
`<!-- end of figures -->` are those of the function of that name below, and nobody edits them.
"""

import argparse
import re
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

from korvex_tools.figures.records import RESULTS_FOLDER, Records, row
from korvex_tools.source_tree import SOURCE_TREE

BLOCK = re.compile(r"(<!-- figures: (\w+) -->\n)(.*?)(<!-- end of figures -->)", re.DOTALL)

Lines = list[str]


def table(columns: list[str], rows: list[list[Any]]) -> Lines:
    lines = [" | ".join(columns), "|".join(["---"] * len(columns))]
    return [f"| {lines[0]} |", f"|{lines[1]}|"] + [
        f"| {' | '.join(map(str, cells))} |" for cells in rows
    ]


def folded(summary: str, lines: Lines) -> Lines:
    """Behind one line that a click opens: for tables that few readers want whole."""
    return [f"<details><summary>{summary}</summary>", "", *lines, "", "</details>"]


def best_set(records: Records) -> str:
    return records["bench_threads"]["settings"]["instruction_set"]


def machine(records: Records, name: str) -> str:
    record = records[name]
    return f"{record['host']['processor']}, {record['date'][:10]}"


def short(number: float) -> str:
    """Three digits, as people write them."""
    return f"{number:.3g}" if number < 100 else f"{number:,.0f}"


# --- Blocks of README.md


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
    if ours > other:
        return f"{ours / other:.2f} times its time"
    return f"{other / ours:.{0 if other > 10 * ours else 2}f} times faster"


# --- Blocks of docs/performance.md


def answer_sums(records: Records) -> Lines:
    return answer(records, "sum", "tqx_sum", "an element", "numpy.sum", "math.fsum, list")


def answer_dots(records: Records) -> Lines:
    return answer(records, "dot", "tqx_dot", "a pair", "torch.dot", "math.sumprod, lists")


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


def targets_met(records: Records) -> Lines:
    met = [cells[-1] == "met" for cells in target_rows(records)]
    missed = "" if all(met) else "; it missed these:"
    return [f"This run met {sum(met)} of {len(met)} targets{missed or '.'}"]


def targets_missed(records: Records) -> Lines:
    missed = [cells[:-1] for cells in target_rows(records) if cells[-1] != "met"]
    return table(["script", "data", "candidate", "target"], missed)


def memory(records: Records) -> Lines:
    rows = [r for r in records["bench_large"]["results"] if r["copies_expected"] == 0]
    names = sorted({f"`{r['candidate']}`" for r in rows})
    most, largest = (max(r[key] for r in rows) for key in ("copies", "n"))
    return [
        f"{', '.join(names)} hold",
        f"{most:.2f} copies of an operand beside it, with up to {largest:,} elements.",
    ]


def gain_of_threads(records: Records) -> Lines:
    gains = sorted(r["times_faster"] for r in records["bench_threads"]["results"])
    return [
        f"Two threads make the kernels {gains[0]:.2f} to {gains[-1]:.2f} times faster,",
        f"half of them {gains[len(gains) // 2]:.2f} times or more.",
    ]


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


def sums(records: Records) -> Lines:
    return time_table(records, "bench_sum", "ns_per_element", "ns an element")


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


def products(records: Records) -> Lines:
    key = "ns_per_multiply_add"
    rows = [
        [part["size"], f"`{r['candidate']}`", short(r[f"{key}_processor"]), short(r[key])]
        for part in records["bench_matmul"]["runs"]
        for r in part["results"]
    ]
    columns = ["n", "candidate", "ns a multiply-add, processor time", "on the clock"]
    return folded(f"All {len(rows)} rows", table(columns, rows))


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


def elementary(records: Records) -> Lines:
    rows = []
    for part in records["bench_elementary"]["runs"]:
        for r in part["results"]:
            wrong = part["share_misrounded"][r["candidate"]]
            time = short(r["ns_per_element_processor"])
            rows.append([part["input"], f"`{r['candidate']}`", time, f"{wrong:.3%}"])
    found = table(["input", "candidate", "ns an element, processor time", "misrounded"], rows)
    return folded(f"All {len(rows)} rows", found)


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


def reductions(records: Records) -> Lines:
    rows = [
        [f"`{r['candidate']}`", r["n"], short(r["ns_per_element_processor"])]
        for r in records["bench_reductions"]["results"]
    ]
    found = table(["candidate", "n", "ns an element, processor time"], rows)
    return folded(f"All {len(rows)} rows", found)


def linear(records: Records) -> Lines:
    rows = [
        [f"`{r['candidate']}`", short(r["ms_processor"]), short(r["kilobytes_held"])]
        for part in records["bench_linalg"]["runs"]
        for r in part["results"]
    ]
    found = table(["candidate", "ms, processor time", "kB held"], rows)
    return folded(f"All {len(rows)} rows", found)


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


def durations(records: Records) -> Lines:
    rows = [[f"`{part['part']}`", short(part["seconds"])] for part in records["figures"]["parts"]]
    return folded(f"All {len(rows)} parts", table(["part", "s"], rows))


# --- Blocks of other documents


def exact(records: Records) -> Lines:
    record = records["bench_exact"]
    rows = [
        [part["data"], f"`{r['candidate']}`", *exact_cells(r)]
        for part in record["runs"]
        for r in part["results"]
    ]
    best = record["settings"]["instruction_set"]
    return [
        f"{record['settings']['n']:,} values of N(0,1), 100,000 for the standard library, kernels",
        f"for {best}, one thread but where two are named ({machine(records, 'bench_exact')}):",
        "",
        *table(["part", "candidate", "processor time, or memory", "on the clock"], rows),
    ]


def exact_axes(records: Records) -> Lines:
    record = records["bench_exact_axes"]
    rows = []
    for part in record["runs"]:
        of_torch = row(part, "torch.sum")["ns_per_element_processor"]
        for r in part["results"]:
            time = r["ns_per_element_processor"]
            rows.append([part["data"], f"`{r['candidate']}`", short(time), short(time / of_torch)])
    best = record["settings"]["instruction_set"]
    return [
        f"float64, N(0,1), kernels for {best}, one thread, processor time in ns an element",
        f"({machine(records, 'bench_exact_axes')}):",
        "",
        *table(["shape", "candidate", "time", "times `torch.sum`"], rows),
    ]


def exact_cells(found: dict[str, Any]) -> list[str]:
    if "ns_per_element" in found:
        times = (found["ns_per_element_processor"], found["ns_per_element"])
        return [f"{short(time)} ns an element" for time in times]
    if "ns_per_call" in found:
        return ["", f"{short(found['ns_per_call'])} ns a call"]
    if "ms" in found:
        return ["", f"{short(found['ms'])} ms"]
    return [f"{short(found['kilobytes_held'])} kB beside the operands", ""]


def segments(records: Records) -> Lines:
    record = records["bench_exact_segments"]
    rows = []
    for part in record["runs"]:
        plain = row(part, "torch.index_add_")["ns_per_element_processor"]
        for found in part["results"]:
            time = found["ns_per_element_processor"]
            held = found.get("kilobytes_held")
            rows.append(
                [
                    part["data"],
                    f"`{found['candidate']}`",
                    f"{short(time)} ns",
                    short(time / plain),
                    "" if held is None else f"{short(held)} kB",
                ]
            )
    columns = ["elements go to", "candidate", "an element", "times `torch.index_add_`", "held"]
    return [
        f"{record['settings']['n']:,} float64 of N(0,1), processor time on one thread, and memory",
        "that a call holds beside the operands, the result included",
        f"({machine(records, 'bench_exact_segments')}):",
        "",
        *table(columns, rows),
    ]


def processes(records: Records) -> Lines:
    record = records["bench_processes"]
    rows = [
        [
            f"`{r['candidate']}`",
            f"{r['message_bytes']:,}",
            f"{short(r['ms'])} ms",
            f"{short(r['times_plain'])}",
            f"{short(r['loopback_bytes'] / 1e3)} kB",
            f"{short(r['loopback_bytes_plain'] / 1e3)} kB",
        ]
        for part in record["runs"]
        for r in part["results"]
    ]
    hashes = record["settings"]["hashes_of_weights"]
    columns = ["call", "bytes of a message", "time", "times a plain call", "moved", "moved by it"]
    return [
        f"Tensors of {record['settings']['n']:,} elements, processes on "
        f"{record['host']['processors']} processors ({machine(records, 'bench_processes')}):",
        "",
        *table(columns, rows),
        "",
        "After the same training in 2, 3 and 4 processes the weights had so many different hashes:",
        f"{hashes['exact']} with `GradientAccumulator`, {hashes['plain']} with plain gradients.",
    ]


def command(records: Records) -> Lines:
    record = records["bench_command"]
    rows = [
        [
            part["data"],
            f"`{r['candidate'].rpartition(': ')[2]}`",
            short(r["ns_per_value_processor"]),
            short(r["ns_per_value"]),
        ]
        for part in record["runs"]
        for r in part["results"]
    ]
    settings = record["settings"]
    return [
        f"{settings['n']:,} values in {settings['columns']} columns, nanoseconds a value, pyarrow",
        f"{settings['pyarrow']} ({machine(records, 'bench_command')}):",
        "",
        *table(["file", "candidate", "processor time", "on the clock"], rows),
        "",
        *(
            f"- `{target['candidate']}`: {target['times']:.2f} times its time, "
            f"at most {target['times_at_most']:g} wanted"
            for target in record["runs"][0]["targets"]
        ),
    ]


def series_errors(records: Records) -> Lines:
    return records["series_errors"]["table"]


def refined_solves(records: Records) -> Lines:
    return records["refined_solves"]["table"]


def series_overhead(records: Records) -> Lines:
    record = records["bench_series"]
    ratios = [r["ratio"] for r in record["results"]]
    return [
        "Beside the torch operations in it, a call costs about what plain Python costs: its time",
        f"is {min(ratios):.2f} to {max(ratios):.2f} times that of the same torch calls made from",
        f"Python (`benchmarks/bench_series.py`, {record['settings']['n']} elements on a host).",
    ]


BLOCKS: dict[str, Callable[[Records], Lines]] = {
    function.__name__: function
    for function in (
        costs,
        answer_sums,
        answer_dots,
        answer_products,
        gain_of_threads,
        memory,
        targets_met,
        targets_missed,
        where,
        sums,
        dots,
        products,
        product_ways,
        threads,
        elementary,
        elementwise,
        reductions,
        linear,
        large,
        targets,
        durations,
        series_errors,
        refined_solves,
        series_overhead,
        exact,
        segments,
        exact_axes,
        command,
        processes,
    )
}


# --- Documents


def documents(root: Path) -> list[Path]:
    """Those that hold a block."""
    found = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
    return [path for path in found if BLOCK.search(path.read_text())]


def with_figures(text: str, records: Records) -> str:
    def block(match: re.Match[str]) -> str:
        lines = "\n".join(BLOCKS[match[2]](records))
        return f"{match[1]}{lines}\n{match[4]}"

    return BLOCK.sub(block, text)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", type=Path, default=RESULTS_FOLDER, help="folder of records")
    parser.add_argument(
        "--root", type=Path, default=SOURCE_TREE, help="tree whose documents are written"
    )
    parser.add_argument("--check", action="store_true", help="write nothing; fail if they differ")
    options = parser.parse_args()
    records = Records(options.results)
    stale = []
    for path in documents(options.root):
        text = path.read_text()
        fresh = with_figures(text, records)
        if fresh != text:
            stale.append(str(path.relative_to(options.root)))
            if not options.check:
                path.write_text(fresh)
    print(f"{'stale' if options.check else 'written'}: {', '.join(stale) or 'nothing'}")
    sys.exit(1 if options.check and stale else 0)


if __name__ == "__main__":
    main()
