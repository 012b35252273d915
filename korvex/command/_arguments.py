# SPDX-License-Identifier: Apache-2.0
"""What the command takes."""

from __future__ import annotations

import argparse
import importlib.metadata
import re
from collections.abc import Sequence

from korvex.readers import FORMATS

_FILES = """\
A FILE is text with one value a line, CSV, TSV, NPY, NPZ, Parquet or Arrow, compressed by gzip or
zstandard or not; "-" is standard input. FILE:COLUMN is one column, by its name or its number from
1; without it all columns that hold numbers are taken.

A decimal in a text is first rounded to the nearest float64, and the sum is of those. Numbers of the
other formats enter as they are, 64-bit integers too.
"""
_CODES = """\
exit codes: 0 done; 1 a checksum or a record is not met; 2 arguments or input of no use; 3 output
not written; 4 a package is missing; 130 interrupted; 143 ended by SIGTERM
"""
type _Commands = argparse._SubParsersAction[argparse.ArgumentParser]

_SUM = (
    "Sums files exactly, with memory for a piece of a file, and shows how far float sums are off."
)
_RECORD = "Writes a record of exact sums of files: checksums, shapes, limbs, and what they ran on."
_VERIFY = "Verifies a record: its own checksums, and the sums of its files, computed anew."
_DEVICES = "Shows what can run on this machine, and why not what cannot."


# A column of standard input begins as an option does: it is written in another way meanwhile.
_STANDARD_INPUT = "-:"
_MEANWHILE = "\0:"


def parse(arguments: Sequence[str]) -> argparse.Namespace:
    """Ends the process with exit code 2 and some lines where the arguments are of no use."""
    hidden = [_with_prefix(text, _STANDARD_INPUT, _MEANWHILE) for text in arguments]
    options = parser().parse_args(hidden)
    if hasattr(options, "files"):
        options.files = [_with_prefix(t, _MEANWHILE, _STANDARD_INPUT) for t in options.files]
    return options


def _with_prefix(text: str, old: str, new: str) -> str:
    return new + text.removeprefix(old) if text.startswith(old) else text


def parser() -> argparse.ArgumentParser:
    top = argparse.ArgumentParser(
        prog="korvex",
        description="Exact sums of files, and records of them.",
        epilog=_CODES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    top.add_argument(
        "--version", action="version", version=f"korvex {importlib.metadata.version('korvex-tqx')}"
    )
    commands = top.add_subparsers(dest="command", required=True, metavar="COMMAND")
    _add_sum(commands)
    _add_record(commands)
    _add_verify(commands)
    devices = _command(commands, "devices", _DEVICES, "")
    devices.add_argument("--json", action="store_true", help="as one JSON text")
    return top


def _command(commands: _Commands, name: str, does: str, more: str) -> argparse.ArgumentParser:
    return commands.add_parser(
        name,
        help=does,
        description=f"{does}\n\n{more}",
        epilog=_CODES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )


def _add_sum(commands: _Commands) -> None:
    command = _command(commands, "sum", _SUM, _FILES)
    _add_files(command)
    command.add_argument("--json", action="store_true", help="as one JSON text, with all digits")
    command.add_argument(
        "--digits",
        type=_digit_count,
        default=60,
        metavar="N",
        help="digits shown of a decimal (60)",
    )
    command.add_argument(
        "--verify", type=_checksum, metavar="CHECKSUM", help="of one column; exit code 1 if another"
    )


def _add_record(commands: _Commands) -> None:
    more = "\nThe record goes to standard output. Paths in it start at the folder of the record.\n"
    command = _command(commands, "record", _RECORD, _FILES + more)
    _add_files(command)
    command.add_argument(
        "-o",
        "--output",
        metavar="RECORD",
        help="a new file, written as a whole or not at all",
    )


def _add_verify(commands: _Commands) -> None:
    more = "A change of the environment is shown and is no failure.\n"
    command = _command(commands, "verify", _VERIFY, more)
    command.add_argument("record", metavar="RECORD", help='a file, or "-" for standard input')
    command.add_argument("--folder", help="where paths in the record start (the record's folder)")
    command.add_argument("--no-files", action="store_true", help="only the record's own checksums")


def _add_files(command: argparse.ArgumentParser) -> None:
    add = command.add_argument
    add("files", nargs="+", metavar="FILE", help="FILE, FILE:COLUMN or -")
    add("--format", choices=FORMATS, help="instead of what content and name say")
    add(
        "--header",
        action=argparse.BooleanOptionalAction,
        help="whether the first row of CSV and TSV holds names (if no cell of it is a number)",
    )
    add(
        "--missing",
        action="append",
        default=[],
        metavar="TEXT",
        help="leave out cells of CSV, TSV and text that read so, as in --missing '' --missing NA",
    )


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
