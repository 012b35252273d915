# SPDX-License-Identifier: Apache-2.0
"""The command line of a benchmark, and where its record goes."""

import argparse
import json
from pathlib import Path
from typing import Any

from korvex_tools.figures.records import RESULTS_FOLDER, write_results


def host_parser(
    description: str | None, n: int, of: str, repeats: int, what: str = "timed rounds"
) -> argparse.ArgumentParser:
    """--n and --repeats, with their defaults and what they count, --quick and --output."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--n", type=int, default=n, help=f"{of} ({n})")
    parser.add_argument("--repeats", type=int, default=repeats, help=f"{what} ({repeats})")
    add_quick_and_output(parser)
    return parser


def add_quick_and_output(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--quick", action="store_true", help="a small run that records nothing")
    parser.add_argument("--output", type=Path, help="folder for the JSON file")


def cut_short(options: argparse.Namespace, **limits: int) -> None:
    """With --quick: no option of these is larger than its limit."""
    if options.quick:
        for name, limit in limits.items():
            setattr(options, name, min(getattr(options, name), limit))


def record(
    name: str, options: argparse.Namespace, settings: dict[str, Any], **content: Any
) -> None:
    """Into --output, or among the others; that of a quick run is kept only where --output says."""
    folder = options.output or (None if options.quick else RESULTS_FOLDER)
    if folder:
        write_results(name, folder, {"settings": settings, **content})


# --- On a GPU


def gpu_parser(description: str | None, of: str) -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--n", type=int, default=100_000_000, help=f"{of} (100000000)")
    parser.add_argument("--repeats", type=int, default=21, help="timed rounds (21)")
    parser.add_argument("--emulated", action="store_true", help="host kernels: tries the script")
    parser.add_argument("--output", type=Path, help="folder for a JSON file")
    return parser


def record_and_print(name: str, options: argparse.Namespace, content: dict[str, Any]) -> None:
    """Into --output if given; the last line is for the report of `make gpu`."""
    if options.output:
        write_results(name, options.output, content)
    print(json.dumps(content))
