#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sums the float64 values of files exactly and shows how far float sums are off.

The exit code is 0 if all went well, 1 if a checksum or a known answer was not met, and 2 if an
argument or a file was of no use.
"""

import argparse
import os
import re
import sys

from demo_sets import run_demo
from exact_figures import SumFigures, figures_of
from figures_text import figures_text
from progress_bar import progress_bar
from sum_device import SumDevice, choose_device
from value_files import InputError, path_of, read_values

MET, NOT_MET, UNUSABLE = 0, 1, 2

_DESCRIPTION = """\
Sums the float64 values of files exactly and shows how far the float sums are off.

A FILE is text with one value a line, FILE.csv:COLUMN (the name in the first row, or the number of
the column, from 1) or FILE.npy; each of them may be gzipped. A value is first rounded to the
nearest float64: the sums are those of the float64 values.
"""


def main(arguments: list[str]) -> int:
    options = _parse(arguments)
    device = choose_device(options.emulated)
    print(f"device: {device.description}\n", flush=True)
    if options.demo:
        return MET if run_demo(device, options.digits) else NOT_MET
    return max([_show_file(device, source, options) for source in options.files])


def _parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="exact_sum.py",
        description=_DESCRIPTION,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("files", nargs="*", metavar="FILE", help="text, FILE.csv:COLUMN or FILE.npy")
    add("--demo", action="store_true", help="sum sets with known answers instead of files")
    add("--digits", type=_digit_count, default=60, help="digits shown of a decimal (60)")
    add("--verify", type=_checksum, metavar="CHECKSUM", help="of one file; exit code 1 if another")
    add("--emulated", action="store_true", help="run on the emulated device, GPU or not")
    options = parser.parse_args(arguments)
    if options.demo == bool(options.files):
        parser.error("give files or --demo")
    if options.verify and len(options.files) != 1:
        parser.error("--verify goes with one file")
    return options


def _digit_count(text: str) -> int:
    count = int(text)
    if count < 1:
        raise argparse.ArgumentTypeError("at least 1 digit is shown")
    return count


def _checksum(text: str) -> str:
    """Lower case, since checksums are compared as text."""
    if not re.fullmatch("[0-9a-f]{16,64}", text):
        raise argparse.ArgumentTypeError("a checksum is 16 to 64 lower-case hexadecimal characters")
    return text


def _show_file(device: SumDevice, source: str, options: argparse.Namespace) -> int:
    """Prints the figures of one file; its exit code."""
    try:
        with progress_bar(path_of(source)) as on_read:
            values = read_values(source, on_read)
    except InputError as error:
        print(f"exact_sum.py: {error}", file=sys.stderr)
        return UNUSABLE
    figures = figures_of(device, values)
    print(figures_text(source, figures, options.digits) + "\n", flush=True)
    return _verify(device, figures, options.verify) if options.verify else MET


def _verify(device: SumDevice, figures: SumFigures, expected: str) -> int:
    """Compares as many characters as were given."""
    try:
        device.runtime.tqx_verify(figures.result, expected, truncate=len(expected))
    except ValueError as mismatch:
        print(mismatch)
        return NOT_MET
    print(f"verified: {expected}")
    return MET


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except BrokenPipeError:  # the reader of our output has gone, as `head` does
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(NOT_MET)
