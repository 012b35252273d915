# SPDX-License-Identifier: Apache-2.0
"""Reductions along axes on a GPU, each output rounded once there.

Columns and short rows of a sum or mean are a thread's each. Every other output has a state, and the
states of as many outputs as fit MOST_STATE_BYTES are there at a time. Which threads take which
elements does not show in the results: a state is a sum of integers. Operands are read where they
are.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence
from typing import Any, NamedTuple

from korvex.exact import _native
from korvex.exact._arrays import Operand
from korvex.exact._device_views import View, launch, merged, placed, view_of
from korvex.exact._devices import FORMAT_NUMBERS, Device
from korvex.exact._homes import in_format
from korvex.exact._state import COUNTS, DOT, MOMENTS, SUM, SUM_DIGITS, WORD_BYTES, State

MOST_STATE_BYTES = 1 << 26
# An output of more elements is a block's, of fewer a warp's.
MOST_OF_WARP = 2048
# Where outputs are few, blocks for which they are cut into parts, and the least part.
_WANTED_BLOCKS = 1024
_LEAST_PART = 16384
# The digits of a block have room for no longer part.
_MOST_PART = 1 << 28
# Elements at one distance that are worth a tile of their own.
_LEAST_RUN = 256
# A thread takes an output where it has so few elements, or where there are so many columns.
MOST_OF_THREAD = 64
LEAST_COLUMNS = 2048

_SIZES = {"float64": 8, "float32": 4, "float16": 2, "bfloat16": 2}

_KINDS = {
    _native.TOTAL: SUM,
    _native.MEAN: SUM,
    _native.VARIANCE: MOMENTS,
    _native.DEVIATION: MOMENTS,
    _native.DOT_PRODUCT: DOT,
    _native.NORM: DOT,
}


class Term(NamedTuple):
    """What is added to the states: elements, or products of pairs, of views of one shape."""

    operands: tuple[View, ...]
    sign: int = 1


class Function(NamedTuple):
    """What an output is of its state; `divisor` and `scale` are of variances."""

    number: int
    divisor: int = 1
    scale: int = 1

    @property
    def kind(self) -> int:
        return _KINDS[self.number]


def reduce_along(
    operand: Operand,
    axes: tuple[tuple[int, ...], tuple[int, ...]],
    shape: tuple[int, ...],
    function: Function,
    form: str,
) -> Any:
    """Reduce an array, or the halves of a complex one; `axes` are those kept and the others."""
    device = operand.device
    assert device is not None
    kept, reduced = axes
    views = [view_of(device, half).transposed(kept + reduced) for half in operand.halves()]
    halves = [_terms_of_one(function, view) for view in views]
    return reduced_on(device, halves, len(kept), function, form, shape)


def vecdot(x: Operand, y: Operand, axis: int, shape: tuple[int, ...], form: str) -> Any:
    """Products of conj(x) and y along an axis; `shape` is that of both, with the axis last."""
    device = x.device
    assert device is not None
    xr, *xi = [view_of(device, half).moved_last(axis).broadcast(shape) for half in x.halves()]
    yr, *yi = [view_of(device, half).moved_last(axis).broadcast(shape) for half in y.halves()]
    real, imaginary = [Term((xr, yr))], [Term((xr, each)) for each in yi]
    if xi and yi:
        real.append(Term((*xi, *yi)))
    imaginary += [Term((each, yr), -1) for each in xi]
    halves = [real, imaginary] if imaginary else [real]
    function = Function(_native.DOT_PRODUCT)
    return reduced_on(device, halves, len(shape) - 1, function, form, shape[:-1])


def reduce_one_by_one(
    operand: Operand,
    axes: tuple[tuple[int, ...], tuple[int, ...]],
    shape: tuple[int, ...],
    form: str,
    rounded: Callable[[State], float],
) -> Any:
    """Round a real operand's moments on the host, for divisors that kernels do not take."""
    device = operand.device
    assert device is not None
    kept, reduced = axes
    [half] = operand.halves()
    view = view_of(device, half).transposed(kept + reduced)
    function = Function(_native.VARIANCE)
    job = _Job(device, _terms_of_one(function, view), len(kept), function)
    values: list[float] = []
    for begin, end in job.turns():
        words = device.to_host(job.states(begin, end)).reshape(end - begin, job.words).copy()
        words[:, -1] = job.elements  # kernels count none here
        values += [rounded(State(MOMENTS, each)) for each in words]
    return operand.home.give(in_format(values, form).reshape(shape), form)


def _terms_of_one(function: Function, view: View) -> list[Term]:
    if function.kind == SUM:
        return [Term((view,))]
    squares = Term((view, view))
    return [Term((view,)), squares] if function.kind == MOMENTS else [squares]


def reduced_on(
    device: Device,
    halves: Sequence[list[Term]],
    kept: int,
    function: Function,
    form: str,
    shape: tuple[int, ...],
) -> Any:
    """One output for each index of the first axes, or two halves of one. Nothing waits for them."""
    jobs = [_Job(device, terms, kept, function) for terms in halves]
    out = device.empty(jobs[0].outputs * len(jobs), form)
    for place, job in enumerate(jobs):
        first = device.address(out) + place * out.itemsize
        if job.is_of_columns:
            job.sum_columns(first, len(jobs), form)
        else:
            job.round_states(first, len(jobs), form)
    return (out if len(jobs) == 1 else device.joined(out)).reshape(shape)


class _Job:
    """The states of all outputs of some terms, of which some are made at a time."""

    def __init__(self, device: Device, terms: list[Term], kept: int, function: Function) -> None:
        shape = terms[0].operands[0].shape
        self.device, self.terms, self.function = device, terms, function
        self.outputs, self.elements = math.prod(shape[:kept]), math.prod(shape[kept:])
        self.words = _native.words(function.kind)
        self._layouts = [_Layout.of(term, kept) for term in terms]
        self._plans: list[Any] = []

    @property
    def is_of_columns(self) -> bool:
        """Whether threads take an output each, without states: for columns and short rows."""
        if self.function.kind != SUM or not self.outputs:
            return False
        if self.elements <= MOST_OF_THREAD:
            return True
        is_few = self.outputs < LEAST_COLUMNS or self.elements > _MOST_PART
        return not is_few and self._layouts[0].has_columns

    def sum_columns(self, first: int, step: int, form: str) -> None:
        """Write the outputs, each by a thread, to every step-th element of a result."""
        [x] = self.terms[0].operands
        layout = self._layouts[0]
        plan = placed(self.device, layout.words(layout.inner_run(self.elements), self.elements))
        launch(
            self.device,
            "korvex_sum_columns",
            self.outputs,
            self.device.address(plan),
            x.address,
            x.format,
            self.function.number,
            self.elements,
            first,
            step,
            FORMAT_NUMBERS[form],
        )

    def round_states(self, first: int, step: int, form: str) -> None:
        """The same by states of the outputs."""
        size = _SIZES[form]
        for begin, end in self.turns():
            states = self.states(begin, end)
            launch(
                self.device,
                "korvex_round_states",
                end - begin,
                self.device.address(states),
                self.function.number,
                self.elements,
                self.function.divisor,
                self.function.scale,
                first + begin * step * size,
                step,
                FORMAT_NUMBERS[form],
            )

    def turns(self) -> list[tuple[int, int]]:
        """Ranges of outputs whose states are there at a time."""
        most = max(MOST_STATE_BYTES // (self.words * WORD_BYTES), 1)
        return [(begin, min(begin + most, self.outputs)) for begin in range(0, self.outputs, most)]

    def states(self, begin: int, end: int) -> Any:
        """The states of some outputs, to which the terms have been added."""
        device = self.device
        if not self._plans and self.elements:
            self._plans = [placed(device, self._words_of(layout)) for layout in self._layouts]
        states = device.zeros((end - begin) * self.words)
        digits = device.address(states)
        counts = digits + WORD_BYTES * (self.words - COUNTS)
        for term, plan in zip(self.terms if self.elements else [], self._plans, strict=True):
            pairs = len(term.operands) == 2
            of_moments = pairs and self.function.kind == MOMENTS
            operands = [number for x in term.operands for number in (x.address, x.format)]
            launch(
                device,
                "korvex_multiply_axes" if pairs else "korvex_add_axes",
                (end - begin) * self._parts,
                begin,
                device.address(plan),
                *operands,
                *([term.sign] if pairs else []),
                digits + WORD_BYTES * SUM_DIGITS * of_moments,
                self.words,
                0 if of_moments else counts,
            )
        return states

    @property
    def _is_by_block(self) -> bool:
        return self.elements > MOST_OF_WARP

    @property
    def _parts(self) -> int:
        """Into how many parts the elements of an output are cut."""
        if not self._is_by_block:
            return 1
        wanted = min(_WANTED_BLOCKS // self.outputs, -(-self.elements // _LEAST_PART))
        return max(wanted, -(-self.elements // _MOST_PART), 1)

    def _words_of(self, layout: _Layout) -> list[int]:
        run = layout.inner_run(self.elements)
        if run < _LEAST_RUN:
            run = self.elements  # tiles go beyond the ends of rows
        return layout.words(run, self.elements, self._parts, self._is_by_block)


class _Layout(NamedTuple):
    """Operands of one shape by as few axes as there can be: those kept, then the others."""

    kept: list[int]
    reduced: list[int]
    kept_strides: list[list[int]]  # of each operand
    reduced_strides: list[list[int]]

    @staticmethod
    def of(term: Term, kept: int) -> _Layout:
        shape = term.operands[0].shape
        strides = [x.byte_strides for x in term.operands]
        outer, of_outer = merged(shape[:kept], [each[:kept] for each in strides])
        inner, of_inner = merged(shape[kept:], [each[kept:] for each in strides], in_any_order=True)
        return _Layout(outer, inner, of_outer, of_inner)

    @property
    def has_columns(self) -> bool:
        """Whether neighbours among the outputs lie closer than those of one output."""
        if not (self.kept and self.reduced):
            return False
        return abs(self.kept_strides[0][-1]) < abs(self.reduced_strides[0][-1])

    def inner_run(self, elements: int) -> int:
        """Elements that follow each other at one distance."""
        return self.reduced[-1] if self.reduced and elements else elements

    def words(
        self, run: int, elements: int, parts: int = 1, is_by_block: bool = False
    ) -> list[int]:
        """What describes the operands, as device/state_axes.h reads it."""
        words = [len(self.kept), len(self.reduced), run, elements, parts, int(is_by_block)]
        words += self.kept + self.reduced
        for of_kept, of_reduced in zip(self.kept_strides, self.reduced_strides, strict=True):
            words += of_kept + of_reduced
        return words
