# SPDX-License-Identifier: Apache-2.0
"""What sums of float64 come to, for comparison: each addition is rounded.

Both are defined for the sequence of all values, so no size of a piece changes them.
"""

from __future__ import annotations

from typing import Any

import numpy as np

BLOCK = 1 << 16  # elements

Array = np.ndarray[Any, Any]


class FloatSums:
    """Of one column, piece by piece."""

    def __init__(self) -> None:
        self._sequential = 0.0
        self._blockwise = 0.0
        self._pending = np.empty(BLOCK)
        self._pending_count = 0

    def add(self, values: Array) -> None:
        numbers = values.astype(np.float64, copy=False).ravel()
        with np.errstate(all="ignore"):
            self._add_sequentially(numbers)
            self._add_in_blocks(numbers)

    @property
    def sequential(self) -> float:
        """One value after the other, as a loop adds them."""
        return float(self._sequential)

    @property
    def blockwise(self) -> float:
        """`numpy.sum` of BLOCK values at a time, and these sums one after the other."""
        with np.errstate(all="ignore"):
            rest = np.sum(self._pending[: self._pending_count])
            return float(self._blockwise + rest)

    def _add_sequentially(self, numbers: Array) -> None:
        for first in range(0, numbers.size, BLOCK):
            part = np.empty(min(BLOCK, numbers.size - first) + 1)
            part[0] = self._sequential
            part[1:] = numbers[first : first + BLOCK]
            self._sequential = np.add.accumulate(part, out=part)[-1]

    def _add_in_blocks(self, numbers: Array) -> None:
        while numbers.size:
            if self._pending_count == 0 and numbers.size >= BLOCK:
                self._blockwise += np.sum(numbers[:BLOCK])
                numbers = numbers[BLOCK:]
                continue
            taken = min(BLOCK - self._pending_count, numbers.size)
            end = self._pending_count + taken
            self._pending[self._pending_count : end] = numbers[:taken]
            numbers, self._pending_count = numbers[taken:], end
            if end == BLOCK:
                self._blockwise += np.sum(self._pending)
                self._pending_count = 0
