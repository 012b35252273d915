# SPDX-License-Identifier: Apache-2.0
"""A process that has imported what a Python check needs, and runs each check in a fork of its own.

The check is a module with a function `first_difference(file, library, instruction_set)`. Run as a
program it reads requests, one in a line, and answers each by a line: what differs, or "equal".
"""

import json
import os
import resource
import signal
import subprocess
import sys
from collections.abc import Callable
from dataclasses import asdict, dataclass
from pathlib import Path

EQUAL = "equal"
Check = Callable[[str, str, str], str]


@dataclass(frozen=True)
class Request:
    file: str  # that was changed: what it is likely to break may be tried first
    library: str
    instruction_set: str
    seconds: int  # of the processor, at most


class Prepared:
    """The process, started at the first library."""

    def __init__(self, module: str) -> None:
        self._module = module
        self._process: subprocess.Popen[str] | None = None

    def answer(self, request: Request) -> tuple[str, float]:
        """What the check says of the library, and the seconds of the processor that it took."""
        if self._process is None:
            self._process = subprocess.Popen(
                [sys.executable, "-P", "-m", self._module],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                text=True,
                env=os.environ | {"CUDA_VISIBLE_DEVICES": ""},
            )
        assert self._process.stdin and self._process.stdout
        self._process.stdin.write(json.dumps(asdict(request)) + "\n")
        self._process.stdin.flush()
        line = self._process.stdout.readline()
        if not line:
            raise RuntimeError(f"the process of {self._module} has ended")
        said, seconds = json.loads(line)
        return said, seconds

    def close(self) -> None:
        if self._process is not None:
            self._process.communicate()  # closes its input, which ends it


def serve(check: Check) -> int:
    for line in sys.stdin:
        print(json.dumps(in_a_fork(check, Request(**json.loads(line)))), flush=True)
    return 0


def in_a_fork(check: Check, request: Request) -> tuple[str, float]:
    """The answer of a process that may die or hang, and its time."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(reading)
        answer(check, request, writing)
    os.close(writing)
    with os.fdopen(reading, "rb") as pipe:
        said = pipe.read().decode(errors="replace")
    _, status, used = os.wait4(child, 0)
    said = said or f"ended with {os.waitstatus_to_exitcode(status)}"
    return said, used.ru_utime + used.ru_stime


def answer(check: Check, request: Request, writing: int) -> None:
    """Writes what the check says, and ends the process."""
    silent = os.open(os.devnull, os.O_WRONLY)
    os.dup2(silent, 1)
    resource.setrlimit(resource.RLIMIT_CPU, (request.seconds, request.seconds))
    signal.alarm(60 + 10 * request.seconds)  # where it waits for ever
    try:
        said = check(request.file, request.library, request.instruction_set)
    except BaseException as error:
        said = f"{type(error).__name__}: {error}"
    os.write(writing, said.replace("\n", " ").encode()[:2000])
    os._exit(0)


def original_package() -> Path:
    """Where korvex is installed; it is not imported."""
    from importlib.util import find_spec

    spec = find_spec("korvex")
    if spec is None or spec.origin is None:
        raise RuntimeError("korvex is not installed where this Python looks")
    return Path(spec.origin).parent
