# SPDX-License-Identifier: Apache-2.0
"""Processes that try mutants side by side, each in a copy of the tree of its own."""

import multiprocessing
import os
import shutil
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from korvex_tools.mutation.mutants import Mutant
from korvex_tools.mutation.programs import Tree, usable_sets
from korvex_tools.mutation.trial import Trials

Tried = tuple[Mutant, dict[str, Any], float]  # what came of it, and in how many seconds

_trials: Trials  # of a worker


class Workers:
    """The processes, started at the first mutant."""

    def __init__(self, folder: Path, compiler: str, count: int) -> None:
        self._folder = folder
        self._start = (folder, compiler)
        self._count = count
        self._pool: Any = None

    def own_tests(self, mutants: list[Mutant]) -> Iterator[Tried]:
        """The mutants as they are done."""
        return self._each(_own_tests, mutants)

    def all_tests(self, mutants: list[Mutant]) -> Iterator[Tried]:
        return self._each(_all_tests, mutants)

    def _each(self, function: Any, mutants: list[Mutant]) -> Iterator[Tried]:
        if not mutants:
            return
        if self._pool is None:
            shutil.rmtree(self._folder / "trees", ignore_errors=True)
            (self._folder / "originals").mkdir(parents=True, exist_ok=True)
            context = multiprocessing.get_context("fork")
            self._pool = context.Pool(self._count, initializer=_start, initargs=self._start)
        yield from self._pool.imap_unordered(function, mutants)

    def close(self) -> None:
        if self._pool is not None:
            self._pool.terminate()
            self._pool.join()


def _start(folder: Path, compiler: str) -> None:
    global _trials
    tree = Tree(folder / "trees" / str(os.getpid()), compiler, folder / "originals")
    tree.fill()
    _trials = Trials(tree, usable_sets())


def _own_tests(mutant: Mutant) -> Tried:
    begin = time.monotonic()
    return mutant, _trials.try_own_tests(mutant), time.monotonic() - begin


def _all_tests(mutant: Mutant) -> Tried:
    begin = time.monotonic()
    return mutant, _trials.try_all_tests(mutant), time.monotonic() - begin
