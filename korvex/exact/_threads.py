# SPDX-License-Identifier: Apache-2.0
"""How many threads a call may use: one setting for the process, which no result depends on."""

from __future__ import annotations

MOST_THREADS = 2**31 - 1  # a C int

# 0 stands for as many as there are processors that this process may run on.
count = 0


def get_threads() -> int:
    """Return how many threads one call may use; 0 stands for all processors of this process.

    Examples
    --------
    >>> from korvex import exact
    >>> exact.get_threads()
    0
    """
    return count


def set_threads(threads: int, /) -> None:
    """Set how many threads one call may use. Results have the same bits for every number.

    Parameters
    ----------
    threads : int
        At least 1, or 0 for as many as there are processors that this process may run on, which
        holds until this function is called. Short arrays stay on one thread.

    Examples
    --------
    >>> from korvex import exact
    >>> exact.set_threads(1)
    >>> exact.get_threads()
    1
    >>> exact.set_threads(0)
    """
    global count
    if type(threads) is not int:
        raise TypeError(f"threads must be an int, not {type(threads).__name__}")
    if not 0 <= threads <= MOST_THREADS:
        raise ValueError(f"threads must be from 0 to {MOST_THREADS}, not {threads}")
    count = threads
