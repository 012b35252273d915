# SPDX-License-Identifier: Apache-2.0
"""Draws the pictures of docs/ from records, as SVG: times, errors, what refinement gains.

Each caption names the machine and the day. Needs matplotlib.
"""

import argparse
from pathlib import Path
from typing import Any

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt

from korvex_tools.figures import svg
from korvex_tools.figures.records import RESULTS_FOLDER, Records
from korvex_tools.source_tree import SOURCE_TREE

DOCS = SOURCE_TREE / "docs"
LEAST_ERROR = 1e-18  # stands for 0 on a logarithmic axis
ROUNDING = 2.0**-53

# By candidate: its colour and its mark. What is exact is drawn in full, what rounds dashed.
LOOKS = {
    "tqx_sum": ("c0", "o"),
    "tqx_dot": ("c0", "o"),
    "tqx_matmul": ("c0", "o"),
    "exact.sum": ("c0", "."),
    "exact.vecdot": ("c0", "."),
    "tqx_sum_seq_kernel": ("c1", "s"),
    "tqx_dot_seq_kernel": ("c1", "s"),
    "tqx_matmul_kernel": ("c1", "s"),
    "math.fsum, list": ("c2", "^"),
    "math.fsum": ("c2", "^"),
    "math.fsum of products": ("c3", "^"),
    "math.sumprod, lists": ("c2", "^"),
    "math.sumprod": ("c2", "^"),
    "Fraction": ("c4", "D"),
    "double-double sum": ("c4", "D"),
    "two doubles in torch": ("c5", "v"),
    "compensated sum": ("c5", "v"),
    "compensated dot": ("c5", "v"),
    "torch.sum": ("c6", "x"),
    "torch.dot": ("c6", "x"),
    "torch.matmul": ("c6", "x"),
    "numpy.sum": ("c7", "+"),
    "numpy.dot": ("c7", "+"),
}
ROUNDS = ("torch.", "numpy.", "two doubles", "compensated", "double-double", "math.sumprod")
ROUNDS += ("math.fsum of products",)

TITLES = {
    "sum": ("Sum of N(0,1)", "elements", "time per element (ns)"),
    "dot": ("Dot product of N(0,1)", "pairs", "time per pair (ns)"),
    "matmul": ("Product of two n × n matrices of N(0,1)", "n", "time per multiply-add (ns)"),
}


def style(name: str) -> dict[str, Any]:
    colour, mark = LOOKS[name]
    line = "--" if name.startswith(ROUNDS) else "-"
    look = {
        "color": svg.LIGHT[colour],
        "marker": mark,
        "linestyle": line,
        "markersize": 5,
        "linewidth": 1.6,
    }
    # As exact as ours for sums: drawn wide, so that it shows beneath.
    return look | ({"markersize": 10, "markerfacecolor": "none"} if name == "math.fsum" else {})


def by_candidate(results: list[dict[str, Any]], x: str, y: str) -> dict[str, list[tuple]]:
    curves: dict[str, list[tuple]] = {}
    for row in results:
        curves.setdefault(row["candidate"], []).append((row[x], row[y]))
    return curves


def machine_of(record: dict[str, Any]) -> str:
    host, versions = record["host"], record["host"]["versions"]
    software = f"CPython {versions['python']}, torch {versions['torch']}, NumPy {versions['numpy']}"
    return (
        f"{host['processor']}, {host['processors']} processors · {software} · {record['date'][:10]}"
    )


def finish(figure: Any, caption: str, path: Path, description: str) -> None:
    figure.text(0.5, 0.012, caption, ha="center", fontsize=8, color=svg.QUIET)
    figure.tight_layout(rect=(0, 0.035, 1, 1))
    svg.save(figure, path, description)
    plt.close(figure)


def draw_times(record: dict[str, Any], folder: Path) -> None:
    for run in record["runs"]:
        name = run["operation"]
        title, x_label, y_label = TITLES[name]
        figure, axes = plt.subplots(figsize=(8.6, 5.2))
        for candidate, points in by_candidate(run["results"], "n", "ns_per_step").items():
            axes.loglog(*zip(*points, strict=True), label=candidate, **style(candidate))
        if name == "matmul":
            sides = sorted({row["n"] for row in run["results"]})
            axes.set_xticks(sides, map(str, sides))
            axes.minorticks_off()
        axes.set(title=f"{title}: time against size", xlabel=x_label, ylabel=y_label)
        axes.grid(which="major", linewidth=0.7)
        axes.set_axisbelow(True)
        axes.legend(title="full line: exact; dashed: rounds", fontsize=9, title_fontsize=9)
        caption = f"one thread, emulated device · {machine_of(record)}"
        finish(figure, caption, folder / f"time_of_{name}.svg", f"{title}: time against size")


# The page about the module shows the kernels' functions; that about `korvex.exact` its own beside
# what a user of NumPy has without it.
OF_THE_MODULE = {name for name in LOOKS if not name.startswith("exact.")}
OF_ANY_ARRAY = {"numpy.sum", "math.fsum", "exact.sum", "numpy.dot", "math.sumprod", "exact.vecdot"}


def draw_errors(
    record: dict[str, Any], shown_candidates: set[str], folder: Path, name: str
) -> None:
    figure, panels = plt.subplots(1, 2, figsize=(12, 5.4), sharey=True)
    for axes, run in zip(panels, record["runs"], strict=True):
        for candidate, points in by_candidate(run["results"], "condition", "error").items():
            if candidate not in shown_candidates:
                continue
            shown = [(x, min(max(y, LEAST_ERROR), 1.0)) for x, y in points]
            axes.loglog(*zip(*shown, strict=True), label=candidate, **style(candidate))
        axes.axhline(ROUNDING, color=svg.INK, linewidth=0.8, linestyle=":")
        axes.text(1e100, ROUNDING * 1.6, "one rounding, $2^{-53}$", ha="right", fontsize=8)
        title = {"sum": "Sums of 200 numbers", "dot": "Dot products of 100 pairs"}
        axes.set(title=title[run["operation"]], xlabel="condition number")
        axes.set_ylim(LEAST_ERROR / 3, 10)
        axes.set_xticks([10.0**exponent for exponent in range(0, 101, 20)])
        axes.grid(which="major", linewidth=0.7)
        axes.set_axisbelow(True)
        axes.legend(fontsize=9, loc="center right")
    panels[0].set_ylabel("largest relative error of ten (1 stands for all above)")
    words = "errors of sums and of dot products by condition number"
    finish(figure, machine_of(record), folder / f"{name}.svg", words)


def draw_refined_solves(record: dict[str, Any], folder: Path) -> None:
    """From the table that the example prints: on this scale its digits are enough."""
    lines = [[cell.strip() for cell in line.strip("|").split("|")] for line in record["table"]]
    conditions = [float(cells[0]) for cells in lines[2:]]
    figure, axes = plt.subplots(figsize=(8, 5.5))
    passes = range(len(lines[0]) - 2)
    for n in passes:
        label = {0: "0 passes: torch.linalg.solve", 3: "3 (default)"}.get(n, str(n))
        errors = [float(cells[n + 2]) for cells in lines[2:]]
        colour = svg.LIGHT[f"c{n}"]
        axes.loglog(conditions, errors, "o-", color=colour, label=label, markersize=4)
    axes.axhline(1.0, color=svg.INK, linewidth=0.8, linestyle="--")
    axes.set(xlabel="condition number", ylabel="largest error, ulps of the largest element")
    title = "Error of tqx_solve by passes of refinement"
    axes.set_title(f"{title} (dashed: 1 ulp)")
    axes.grid(True, linewidth=0.5)
    axes.legend(title="passes", loc="upper left", fontsize=9)
    caption = f"emulated device · {machine_of(record)}"
    finish(figure, caption, folder / "refined_solves.svg", title)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", type=Path, default=RESULTS_FOLDER, help="folder of records")
    parser.add_argument("--output", type=Path, default=DOCS, help="folder for the pictures")
    options = parser.parse_args()
    records = Records(options.results)
    matplotlib.rcParams.update(svg.SETTINGS)
    options.output.mkdir(parents=True, exist_ok=True)
    draw_times(records["bench_curves"], options.output)
    draw_errors(records["bench_errors"], OF_THE_MODULE, options.output, "errors_by_condition")
    draw_errors(records["bench_errors"], OF_ANY_ARRAY, options.output, "errors_of_any_array")
    draw_refined_solves(records["refined_solves"], options.output)


if __name__ == "__main__":
    main()
