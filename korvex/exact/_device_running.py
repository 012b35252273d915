# SPDX-License-Identifier: Apache-2.0
"""Running sums on a GPU, each rounded once there.

A vector is cut into segments, which threads share; of many vectors each is a thread's. All launches
go to the caller's current stream, with memory of the array's library for the threads.
"""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from korvex.exact._arrays import Real
from korvex.exact._device_views import View, contiguous_strides, launch, merged, placed, view_of
from korvex.exact._devices import FORMAT_NUMBERS, Device

SEGMENT_WORDS = 224  # as in korvex/kernels/states.h
MOST_SEGMENTS = 8192  # 15 MB
_LEAST_SEGMENT = 32  # elements
# As many vectors are a thread's each; fewer are cut into segments, one after the other.
MANY_VECTORS = 256


def cumulative_sum(device: Device, x: Real, axis: int, form: str, include_initial: bool) -> Any:
    """The sums of the first elements along an axis, with that of none where it is asked for."""
    view = view_of(device, x)
    extent = view.shape[axis] + include_initial
    shape = (*view.shape[:axis], extent, *view.shape[axis + 1 :])
    if include_initial:
        out = device.zeros(math.prod(shape), form)
    else:
        out = device.empty(math.prod(shape), form)
    strides = contiguous_strides(shape, out.itemsize)
    first = device.address(out) + include_initial * strides[axis]
    results = View(first, view.shape, strides, FORMAT_NUMBERS[form], out).moved_last(axis)
    vectors = view.moved_last(axis)
    if math.prod(view.shape):
        if math.prod(vectors.shape[:-1]) < MANY_VECTORS:
            _sum_one_by_one(device, vectors, results)
        else:
            _sum_side_by_side(device, vectors, results)
    return out.reshape(shape)


def _sum_one_by_one(device: Device, x: View, results: View) -> None:
    """Each vector by all threads; what they share is written anew for each."""
    count, byte_stride = x.shape[-1], x.byte_strides[-1]
    segments = min(-(-count // _LEAST_SEGMENT), MOST_SEGMENTS)
    memory = device.empty(segments * SEGMENT_WORDS, "int64")
    shared = (segments, device.address(memory), count)
    step = results.byte_strides[-1] // results.owner.itemsize
    for index in np.ndindex(*x.shape[:-1]):
        elements = (_address(x, index), byte_stride, x.format)
        launch(device, "korvex_sum_segments", *shared, *elements)
        launch(device, "korvex_join_segments", *shared)
        written = (_address(results, index), step, results.format)
        launch(device, "korvex_running_sums", *shared, *elements, *written)


def _address(view: View, index: tuple[int, ...]) -> int:
    return view.address + sum(i * s for i, s in zip(index, view.byte_strides[:-1], strict=True))


def _sum_side_by_side(device: Device, x: View, results: View) -> None:
    """As many vectors at a time as there is memory for."""
    vectors, count = math.prod(x.shape[:-1]), x.shape[-1]
    strides = [each.byte_strides for each in (x, results)]
    kept, of_kept = merged(x.shape[:-1], [each[:-1] for each in strides])
    words = [len(kept), 1, count, count, 1, 0, *kept, count]
    for own, each in zip(of_kept, strides, strict=True):
        words += [*own, each[-1]]
    plan = placed(device, words)
    threads = min(vectors, MOST_SEGMENTS)
    memory = device.empty(threads * SEGMENT_WORDS, "int64")
    launch(
        device,
        "korvex_running_axes",
        vectors,
        threads,
        device.address(memory),
        device.address(plan),
        x.address,
        x.format,
        results.address,
        results.format,
    )
