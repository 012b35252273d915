# SPDX-License-Identifier: Apache-2.0
"""Gradients of many micro-batches in one exact sum, which is rounded once.

An element has two words of int64: low + 2^45 high, in units of 2^-77. Settled low words lie in
[0, 2^45). A gradient fits that is a multiple of the unit and below 2^12 in magnitude: each float32
from 2^-54 on, and zero. Then high stays below 2^44 for each, so 2^18 gradients fit without an
overflow, and states of several processes are merged by adding words. A gradient that does not fit,
NaN and infinities too, goes to a wide state of its element alone, one of `exact.Sum`.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from typing import Any

import numpy as np

from korvex.exact import _native, _threads
from korvex.exact._arrays import Real
from korvex.exact._homes import Array, empty
from korvex.exact._processes import checked_tensor, distributed, ranks_of
from korvex.exact._rounding import FORMATS
from korvex.exact._state import SUM, State

_FORMATS = tuple(FORMATS)
_LOW_BITS = 45
_UNITS = 2.0**77  # in 1
_END = 2.0**89  # of what fits, in units
_MOST_GRADIENTS = 1 << 18
_BLOCK = 1 << 15  # elements at a time: temporaries stay in a cache


class GradientAccumulator:
    """The exact sum of the gradients of any micro-batches, on any processes, rounded once.

    A step begins without gradients, `optimizer.zero_grad()`. Each micro-batch is followed by `add`,
    which takes its gradients away from the parameters. In the end `all_reduce` joins the processes,
    and `set_gradients` gives the sums back, rounded to the dtypes of the parameters. So the weights
    have the same bits for any assignment of the same micro-batches to processes, in any order.
    Another cut into micro-batches gives other addends, since a gradient is rounded before it gets
    here.

    Parameters
    ----------
    parameters : iterable of torch tensors
        On the CPU, of float64, float32, float16 or bfloat16: those of a module, in the same order
        in all processes.

    Examples
    --------
    >>> import torch
    >>> from korvex import exact
    >>> model = torch.nn.Linear(1, 1, bias=False)
    >>> gradients = exact.GradientAccumulator(model.parameters())
    >>> for x in (2.0**30, 1.0, -(2.0**30)):
    ...     model(torch.tensor([x])).backward()
    ...     gradients.add()
    >>> gradients.set_gradients()
    >>> model.weight.grad
    tensor([[1.]])
    """

    __slots__ = ("__weakref__", "_counts", "_ends", "_parameters", "_wide", "_words")

    def __init__(self, parameters: Iterable[Any], /) -> None:
        self._parameters = list(parameters)
        if not self._parameters:
            raise ValueError("parameters has none")
        for parameter in self._parameters:
            checked_tensor(parameter, "a parameter", _FORMATS)
        if len({id(parameter) for parameter in self._parameters}) < len(self._parameters):
            raise ValueError("parameters has a tensor twice")
        sizes = [parameter.numel() for parameter in self._parameters]
        self._ends = np.cumsum(sizes).tolist()
        # Both words of all elements; how many gradients each parameter had; calls of add.
        words = np.zeros(2 * self._ends[-1] + len(sizes) + 1, np.int64)
        self._words: Array = words
        self._counts: Array = words[2 * self._ends[-1] :]
        self._wide: dict[int, State] = {}  # by element

    def __repr__(self) -> str:
        return f"GradientAccumulator(count={self.count}, parameters={len(self._parameters)})"

    @property
    def count(self) -> int:
        """How many micro-batches were added, in all processes once `all_reduce` was called.

        Examples
        --------
        >>> import torch
        >>> from korvex import exact
        >>> gradients = exact.GradientAccumulator([torch.zeros(3)])
        >>> gradients.count
        0
        """
        return int(self._counts[-1])

    @property
    def nbytes(self) -> int:
        """Bytes of the state: 16 an element, and some hundreds for each with a wide state.

        Examples
        --------
        >>> import torch
        >>> from korvex import exact
        >>> exact.GradientAccumulator([torch.zeros(1000)]).nbytes
        16016
        """
        return int(self._words.nbytes) + sum(state.words.nbytes for state in self._wide.values())

    # --- Adding

    def add(self) -> None:
        """Add the gradients that the parameters have, and set these to None.

        Examples
        --------
        >>> import torch
        >>> from korvex import exact
        >>> weights = torch.zeros(2, requires_grad=True)
        >>> gradients = exact.GradientAccumulator([weights])
        >>> (weights * torch.tensor([0.5, 3.0])).sum().backward()
        >>> gradients.add()
        >>> weights.grad is None, gradients.count
        (True, 1)
        """
        if self.count >= _MOST_GRADIENTS:
            raise OverflowError(f"the state has room for {_MOST_GRADIENTS} micro-batches")
        taken = [parameter.grad for parameter in self._parameters]
        for gradient in taken:
            if gradient is not None:
                checked_tensor(gradient, "a gradient", _FORMATS)
        for number, gradient in enumerate(taken):
            if gradient is not None:
                self._add(number, gradient.detach().double().reshape(-1).numpy())
                self._counts[number] += 1
                self._parameters[number].grad = None
        self._counts[-1] += 1

    def _add(self, number: int, values: Array) -> None:
        begin = self._begin(number)
        for first in range(0, values.size, _BLOCK):
            block = values[first : first + _BLOCK]
            self._add_block(begin + first, block)

    def _add_block(self, begin: int, block: Array) -> None:
        low, high = self._halves(begin, block.size)
        with np.errstate(over="ignore"):
            units = block * _UNITS  # exact, or too large to fit
        fits = (np.abs(units) < _END) & (np.trunc(units) == units)
        if not fits.all():
            self._add_wide(begin, block, np.flatnonzero(~fits))
            units[~fits] = 0
        upper = np.floor(units * 2.0**-_LOW_BITS)  # exact, as the lower half is
        low += (units - upper * 2.0**_LOW_BITS).astype(np.int64)
        high += upper.astype(np.int64)
        _settle(low, high)

    def _add_wide(self, begin: int, block: Array, places: Array) -> None:
        for place in places.tolist():
            state = self._wide.setdefault(begin + place, State(SUM))
            state.accumulate(Real(block[place : place + 1]))

    def _begin(self, number: int) -> int:
        return self._ends[number - 1] if number else 0

    def _halves(self, begin: int, count: int) -> tuple[Array, Array]:
        elements = self._ends[-1]
        low = self._words[begin : begin + count]
        high = self._words[elements + begin : elements + begin + count]
        return low, high

    # --- Over processes

    def all_reduce(self, group: Any = None) -> None:
        """Add up what all processes of a group have, in each of them.

        One message of `nbytes`, and one of the wide states where there are any. After a call that
        failed the state is undefined.

        Parameters
        ----------
        group : ProcessGroup, optional
            None is the default group of `torch.distributed`.

        Examples
        --------
        >>> import torch
        >>> import torch.distributed as dist
        >>> from korvex import exact
        >>> dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
        >>> weights = torch.zeros(2, requires_grad=True)
        >>> gradients = exact.GradientAccumulator([weights])
        >>> (weights * torch.tensor([0.5, 3.0])).sum().backward()
        >>> gradients.add()
        >>> gradients.all_reduce()
        >>> gradients.set_gradients()
        >>> weights.grad
        tensor([0.5000, 3.0000])
        >>> dist.destroy_process_group()
        """
        import torch

        engine = distributed()
        rank, ranks = ranks_of(group)
        engine.all_reduce(torch.from_numpy(self._words), op=engine.ReduceOp.SUM, group=group)
        wide_counts = torch.zeros(ranks, dtype=torch.int64)
        wide_counts[rank] = len(self._wide)
        engine.all_reduce(wide_counts, op=engine.ReduceOp.SUM, group=group)
        if self.count > _MOST_GRADIENTS:
            raise OverflowError(f"the state has room for {_MOST_GRADIENTS} micro-batches")
        if int(wide_counts.max()):
            self._merge_wide(wide_counts.tolist(), rank, group)
        for begin in range(0, self._ends[-1], _BLOCK):
            _settle(*self._halves(begin, min(_BLOCK, self._ends[-1] - begin)))

    def _merge_wide(self, counts: list[int], rank: int, group: Any) -> None:
        """Gather the wide states of all processes, each with the number of its element."""
        import torch

        own = np.zeros((max(counts), 1 + _native.words(SUM)), np.int64)
        for row, (element, state) in zip(own, self._wide.items(), strict=False):
            row[0], row[1:] = element, state.words
        gathered = [torch.empty(own.shape, dtype=torch.int64) for _ in counts]
        distributed().all_gather(gathered, torch.from_numpy(own), group=group)
        for peer, rows in enumerate(gathered):
            for row in rows[: counts[peer] if peer != rank else 0].numpy():
                state = self._wide.setdefault(int(row[0]), State(SUM))
                state.merge(State(SUM, row[1:].copy()))

    # --- Rounding

    def set_gradients(self) -> None:
        """Give the parameters the sums as gradients, rounded once, and start anew with none.

        A parameter that had no gradient in any micro-batch has None.

        Examples
        --------
        >>> import torch
        >>> from korvex import exact
        >>> weights = torch.zeros(2, requires_grad=True)
        >>> gradients = exact.GradientAccumulator([weights])
        >>> for factor in (1e30, 1.0, -1e30):
        ...     (weights * factor).sum().backward()
        ...     gradients.add()
        >>> gradients.set_gradients()
        >>> weights.grad
        tensor([1., 1.])
        """
        import torch

        for number, parameter in enumerate(self._parameters):
            if self._counts[number] == 0:
                parameter.grad = None
                continue
            form = checked_tensor(parameter, "a parameter", _FORMATS)
            sums = empty((parameter.numel(),), form)
            self._round(number, sums, form)
            flat = torch.from_numpy(sums).view(parameter.dtype)
            parameter.grad = flat.view(parameter.shape)
        self._words[:] = 0
        self._wide.clear()

    def _round(self, number: int, sums: Array, form: str) -> None:
        begin = self._begin(number)
        for first in range(0, sums.size, _BLOCK):
            block = sums[first : first + _BLOCK]
            parts = self._parts(begin + first, block.size)
            _native.column_sums(parts, block, form, _threads.count)
        for element in self._wide_of(begin, self._ends[number]):
            state = self._wide[element].copy()
            state.accumulate(Real(self._parts(element, 1)))
            value = Real(np.array([state.limbs(form=form)[0]]))
            _native.column_sums(
                value.values[:, None], sums[element - begin :][:1], form, _threads.count
            )

    def _parts(self, begin: int, count: int) -> Array:
        """Elements as sums of three doubles each, one below the other."""
        low, high = self._halves(begin, count)
        unit, half = 1 / _UNITS, 31
        upper = (high >> half) * (unit * 2.0 ** (_LOW_BITS + half))  # exact, as are the others
        middle = (high & ((1 << half) - 1)) * (unit * 2.0**_LOW_BITS)
        return np.stack([upper, middle, low * unit])

    def _wide_of(self, begin: int, end: int) -> Iterator[int]:
        return (element for element in self._wide if begin <= element < end)


def _settle(low: Array, high: Array) -> None:
    high += low >> _LOW_BITS
    low &= (1 << _LOW_BITS) - 1
