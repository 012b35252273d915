# SPDX-License-Identifier: Apache-2.0
"""Runs one command, and turns whatever ends it into one line and an exit code."""

from __future__ import annotations

import importlib
import importlib.util
import io
import signal
import sys
from collections.abc import Sequence
from typing import NoReturn

from korvex.command import _codes
from korvex.command._arguments import parse
from korvex.readers import InputError, MissingPackage

# Distributions by the modules that are looked for.
_EXTRA = {"pyarrow": "pyarrow", "rich": "rich", "tqdm": "tqdm"}


def run() -> NoReturn:
    """The console script: the signals of the process are the command's."""
    for stream in (sys.stdout, sys.stderr):
        if isinstance(stream, io.TextIOWrapper):  # names of files may be no text
            stream.reconfigure(errors="backslashreplace")
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # the reader has gone, as `head` does
    signal.signal(signal.SIGTERM, _terminate)
    sys.exit(main(sys.argv[1:]))


def _terminate(number: int, frame: object) -> NoReturn:
    raise _codes.Terminated


def main(arguments: Sequence[str]) -> int:
    """Run a command; its exit code."""
    try:
        options = parse(arguments)
        _check_extra()
        command = importlib.import_module(f"korvex.command._{options.command}")
        return int(command.run(options))
    except _codes.Stop as stop:
        return _ended(stop.code, str(stop))
    except MissingPackage as error:
        return _ended(_codes.NOT_INSTALLED, str(error))
    except InputError as error:
        return _ended(_codes.UNUSABLE, str(error))
    except KeyboardInterrupt:
        return _ended(_codes.INTERRUPTED, "interrupted")
    except _codes.Terminated:
        return _ended(_codes.TERMINATED, "ended by SIGTERM")
    except MemoryError:
        return _ended(_codes.UNUSABLE, "not enough memory")


def _check_extra() -> None:
    for module, package in _EXTRA.items():
        if importlib.util.find_spec(module) is None:
            raise MissingPackage(package, "the command")


def _ended(code: int, text: str) -> int:
    try:
        print(f"korvex: {text}", file=sys.stderr, flush=True)
    except OSError:
        pass  # there is nobody to tell
    return code
