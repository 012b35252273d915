# SPDX-License-Identifier: Apache-2.0
"""Blocks of figures in the pages of single features: korvex.exact, the command, series, solvers."""

from typing import Any

from korvex_tools.figures.blocks import Lines, block, machine, short, table
from korvex_tools.figures.records import Records, row


@block
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


@block
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


@block
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


@block
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


@block
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


@block
def series_errors(records: Records) -> Lines:
    return records["series_errors"]["table"]


@block
def refined_solves(records: Records) -> Lines:
    return records["refined_solves"]["table"]


@block
def series_overhead(records: Records) -> Lines:
    record = records["bench_series"]
    ratios = [r["ratio"] for r in record["results"]]
    return [
        "Beside the torch operations in it, a call costs about what plain Python costs: its time",
        f"is {min(ratios):.2f} to {max(ratios):.2f} times that of the same torch calls made from",
        f"Python (`benchmarks/bench_series.py`, {record['settings']['n']} elements on a host).",
    ]
