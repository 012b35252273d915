# SPDX-License-Identifier: Apache-2.0
"""Predict from the compiled kernels how long each takes on a GPU, and what limits it.

usage: python -P -m korvex_tools.gpu.predict [FOLDER...] [--write]

A FOLDER holds files of kernels, as the folder `cubins` of a build does, with those of states in its
folder `states`. Architectures that no folder has are compiled with nvcc, in build/predictions.
--write keeps the record, in benchmarks/results, and writes the tables of docs/gpu.md from it.
"""

import argparse
import json
import re
import subprocess
import sys
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from korvex_tools import machine_code
from korvex_tools.gpu.devices import A100, DEVICES, H100, RTX_4090, Device, device_named
from korvex_tools.gpu.model import predict
from korvex_tools.gpu.work import WITHOUT_ELEMENTS, WORK, counts_of_file
from korvex_tools.machine_facts import first_line, source_facts
from korvex_tools.marked_text import filled
from korvex_tools.source_tree import SOURCE_TREE

RECORD = SOURCE_TREE / "benchmarks" / "results" / "predictions.json"
DOCUMENT = SOURCE_TREE / "docs" / "gpu.md"
MARK = "predictions"
BUILD = SOURCE_TREE / "build" / "predictions"
KERNELS = SOURCE_TREE / "korvex" / "kernels" / "device"
FLAGS = SOURCE_TREE / "cmake" / "KorvexCuda.cmake"
IN_TABLE = (H100, A100, RTX_4090)


# --- Files of kernels


def nvcc_flags() -> list[str]:
    """Those with which the package is built."""
    return re.search(r"set\(korvex_nvcc_flags\s+([^)]*)\)", FLAGS.read_text())[1].split()


def compiled(architecture: int) -> tuple[Path, str]:
    """The kernels of this tree for an architecture, by nvcc; and the compiler's name."""
    nvcc = machine_code.tool("nvcc")
    if nvcc is None:
        raise SystemExit(f"no kernels for {architecture} in the folders given, and no nvcc on PATH")
    path = BUILD / f"korvex_sm_{architecture}.cubin"
    includes = [f"-I{SOURCE_TREE}", f"-I{KERNELS}"]
    print(f"compiling for {architecture}", file=sys.stderr, flush=True)
    for source, target in (("kernels.cu", path), ("states.cu", states_beside(path))):
        target.parent.mkdir(parents=True, exist_ok=True)
        command = [nvcc, "-cubin", str(KERNELS / source), "-o", str(target)]
        subprocess.run([*command, f"-arch=sm_{architecture}", *nvcc_flags(), *includes], check=True)
    release = first_line([nvcc, "--version"], r"release ([\d.]+)")
    return path, f"nvcc {release}"


def states_beside(path: Path) -> Path:
    """The file of the kernels of states, where a build puts it."""
    return path.parent / "states" / path.name


def files(folders: list[Path]) -> dict[int, tuple[Path, str]]:
    """For each architecture that a device has: its file, and the compiler's name."""
    found: dict[int, tuple[Path, str]] = {}
    for path in (path for folder in folders for path in folder.glob("*.cubin")):
        found.setdefault(machine_code.architecture(path), (path, machine_code.compiler_of(path)))
    wanted = sorted({device.architecture for device in DEVICES})
    return {number: found.get(number) or compiled(number) for number in wanted}


# --- The record


def record_of(found: dict[int, tuple[Path, str]]) -> dict[str, Any]:
    """What the files hold, and the prediction for each device."""
    counts = {
        f"sm_{number}": counts_of_file(path) | counts_of_file(states_beside(path))
        for number, (path, _) in found.items()
    }
    return {
        "date": datetime.now(UTC).isoformat(timespec="seconds"),
        **source_facts(),
        "compilers": {f"sm_{number}": compiler for number, (_, compiler) in found.items()},
        "counts": counts,
        "predictions": {device.name: predictions(counts, device) for device in DEVICES},
    }


def predictions(counts: dict[str, Any], device: Device) -> dict[str, dict[str, Any]]:
    of_device = counts[f"sm_{device.architecture}"]
    return {name: predict(name, of_device[name], device).as_record() for name in WORK}


def recorded(path: Path = RECORD) -> dict[str, Any]:
    return json.loads(path.read_text())


def recorded_for(driver_name: str) -> dict[str, dict[str, Any]] | None:
    """By kernel, for the device that the driver calls so; None where there are no figures of it."""
    device = device_named(driver_name)
    return recorded()["predictions"].get(device.name) if device else None


def write_record(record: dict[str, Any]) -> None:
    """With a line for each pass and prediction, so that a change shows where it is."""
    text = json.dumps(record, indent=1)
    lines = re.sub(r"\{[^{}\[\]]*\}", lambda innermost: re.sub(r"\s+", " ", innermost[0]), text)
    RECORD.write_text(lines + "\n")


# --- Tables


def time_text(nanoseconds: float) -> str:
    """Two digits, in ns or ps."""
    number, unit = (nanoseconds, "ns") if nanoseconds >= 0.1 else (nanoseconds * 1000, "ps")
    return f"{number:.0f} {unit}" if number >= 10 else f"{number:.2g} {unit}"


def cell(row: dict[str, Any]) -> str:
    return f"{time_text(row['nanoseconds'])}, {row['limit']} ({row['warps']})"


def short_name(kernel: str) -> str:
    return kernel.removeprefix("tqx_").removesuffix("_kernel")


def table(columns: list[str], rows: list[list[Any]]) -> list[str]:
    return [
        f"| {' | '.join(columns)} |",
        f"|{'---|' * len(columns)}",
        *(f"| {' | '.join(map(str, cells))} |" for cells in rows),
    ]


def time_table(record: dict[str, Any]) -> list[str]:
    rows = [
        [
            f"`{short_name(name)}`",
            work.unit,
            *(cell(record["predictions"][device.name][name]) for device in IN_TABLE),
        ]
        for name, work in WORK.items()
    ]
    return table(["kernel", "time of", *(device.name for device in IN_TABLE)], rows)


def code_table(record: dict[str, Any]) -> list[str]:
    """What the kernels of the first device hold."""
    counts = record["counts"][f"sm_{IN_TABLE[0].architecture}"]
    rows = []
    for name in WORK:
        of_kernel = counts[name]
        passes = of_kernel["passes"]
        of_element = [
            sum(one[what] * one["times"] / one["elements"] for one in passes)
            for what in ("instructions", "doubles", "accesses")
        ]
        held = [of_kernel[what] for what in ("registers", "stack", "shared")]
        rows.append([f"`{short_name(name)}`", *(f"{number:.3g}" for number in of_element), *held])
    columns = ["kernel", "instructions", "of doubles", "look-ups"]
    return table([*columns, "registers", "stack, bytes", "shared memory, bytes"], rows)


def device_table() -> list[str]:
    rows = [
        [
            device.name,
            device.architecture / 10,
            device.multiprocessors,
            f"{device.gigahertz:.2f}",
            device.doubles_a_cycle,
            f"{device.gigabytes_per_second:,}",
        ]
        for device in IN_TABLE
    ]
    columns = ["GPU", "compute capability", "multiprocessors", "clock, GHz"]
    return table([*columns, "double-precision lanes", "memory, GB/s"], rows)


def lines_for_document(record: dict[str, Any]) -> list[str]:
    compilers = sorted(set(record["compilers"].values()))
    return [
        f"Written by `korvex_tools.gpu.predict --write` on {record['date'][:10]} for commit",
        f"{record['commit'][:10]}, compiled by {' and '.join(compilers)}. Times an element",
        "of a large array, what limits them, and in brackets the warps at a time on a",
        "multiprocessor that works:",
        "",
        *time_table(record),
        "",
        "Those along axes are of long rows whose elements lie together, `korvex_sum_columns` of",
        "columns that do.",
        "",
        "Kernels without a time, since what they do is not in proportion to elements:",
        "",
        *(f"- `{short_name(name)}`: {reason}." for name, reason in WITHOUT_ELEMENTS.items()),
        "",
        "From the machine code for compute capability 9.0, for an element:",
        "",
        *code_table(record),
        "",
        "From NVIDIA's papers; lanes are those of a multiprocessor:",
        "",
        *device_table(),
    ]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("folders", type=Path, nargs="*", metavar="FOLDER")
    parser.add_argument("--write", action="store_true", help="the record and docs/gpu.md")
    options = parser.parse_args()
    record = record_of(files(options.folders))
    print("\n".join([*time_table(record), "", *code_table(record), "", *device_table()]))
    if options.write:
        write_record(record)
        lines = lines_for_document(recorded())
        DOCUMENT.write_text(filled(DOCUMENT.read_text(), MARK, lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
