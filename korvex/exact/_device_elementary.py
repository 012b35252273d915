# SPDX-License-Identifier: Apache-2.0
"""Functions of each element on a GPU, each result rounded once from the exact value.

The kernels of korvex.tqx_runtime find the double nearest to each value, on the current stream; all
other formats become doubles by a kernel first, exactly. A narrower result is that double rounded
again, which errs only where it is a midpoint of the format and not the value itself: these elements
go to the host, and so do 64-bit integers that are no double, where that shows. Only calls that may
have such elements wait, to ask for them.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence
from typing import Any

from korvex.exact._arrays import Real
from korvex.exact._device_views import REST, WHOLE, WIDE, contiguous_strides, doubles, launch
from korvex.exact._devices import FORMAT_NUMBERS, Device, Run
from korvex.exact._homes import Array
from korvex.exact._rounding import FORMATS

# Elements for which memory is taken at a time where doubles are made of them or of their results:
# up to 12 words each.
MOST_AT_A_TIME = 1 << 22

_FLOAT64 = FORMAT_NUMBERS["float64"]
_EXPONENT = 0x7FF << 52  # the bits of a double's exponent
# Of 64-bit integers beyond 2^53 the other functions are 0, 1, -1 or an infinity.
_TELLS_INTEGERS_APART = ("log", "sqrt")


def mapped(device: Device, x: Any, name: str, form: str, on_host: Callable[[Real], Array]) -> Any:
    """A function of each element of an array of the device's library, which the result is of too.

    `on_host` does the same for host memory. The axes of the result lie as it would have them.
    """
    with device.entered():
        strides = device.byte_strides(x)
        axes = memory_order(tuple(x.shape), strides, x.itemsize)
        ordered = device.transposed(x, axes)
        out = device.empty(math.prod(ordered.shape), form)
        job = _Job(device, name, form, device.run(ordered, True), out, on_host)
        for first, count in job.turns():
            job.map_part(first, count)
        back = sorted(range(len(axes)), key=axes.__getitem__)
        return device.transposed(out.reshape(ordered.shape), back)


def memory_order(shape: tuple[int, ...], strides: Sequence[int], size: int) -> list[int]:
    """The axes from the one with the largest stride on, as NumPy orders those of a copy.

    >>> memory_order((2, 3, 4), (8, -16, 48), 8)
    [2, 1, 0]
    """
    axes = list(range(len(shape)))
    for order in (axes, axes[::-1]):
        own = [shape[n] for n in order]
        wanted = contiguous_strides(tuple(own), size)
        found = [strides[n] for n in order]
        if 0 in shape or all(a == b or n == 1 for a, b, n in zip(found, wanted, own, strict=True)):
            return order
    return sorted(axes, key=lambda n: -abs(strides[n]))


class _Job:
    """One call: elements in the order of memory, and their results side by side."""

    def __init__(
        self,
        device: Device,
        name: str,
        form: str,
        x: Run,
        out: Any,
        on_host: Callable[[Real], Array],
    ) -> None:
        self.device, self.name, self.form, self.x = device, name, form, x
        self.out, self.on_host = out, on_host
        self.results = device.reinterpreted(out, _integer(out.itemsize))  # as bits

    def turns(self) -> list[tuple[int, int]]:
        """First elements and counts of the parts that are made at a time."""
        n = self.x.elements
        is_in_place = self.x.format == _FLOAT64 and self.x.byte_stride == self.out.itemsize
        most = n if is_in_place and self.form == "float64" else MOST_AT_A_TIME
        return [(first, min(most, n - first)) for first in range(0, n, most)] if n else []

    def map_part(self, first: int, count: int) -> None:
        part = self.x.part(first, count)
        if self.form == "float64":
            self._launch(part, self.device.address(self.out) + first * self.out.itemsize)
            is_open = None
        else:
            nearest = self.device.empty(count, "float64")
            self._launch(part, self.device.address(nearest))
            bits, is_open = narrowed(self.device, nearest, self.form)
            self.results[first : first + count] = bits
        if part.format in WIDE and self.name in _TELLS_INTEGERS_APART:
            is_no_double = doubles(self.device, [(part, REST)]).owner != 0
            is_open = is_no_double if is_open is None else is_open | is_no_double
        if is_open is not None:
            places = self.device.positions(is_open)
            if len(places):
                self._settle(places + first)

    def _launch(self, part: Run, out: int) -> None:
        x = doubles(self.device, [(part, WHOLE)])
        launch(self.device, f"tqx_{self.name}_kernel", x.address, out, x.elements)

    def _settle(self, places: Any) -> None:
        """Let the host find the results of these elements."""
        device, owner = self.device, self.x.owner
        form = device.format_of(owner)
        bits = device.reinterpreted(owner, _integer(owner.itemsize)).reshape(-1)[places]
        is_bfloat16 = form == "bfloat16"
        values = device.to_host(bits).view("uint16" if is_bfloat16 else form)
        results = self.on_host(Real(values, "bfloat16" if is_bfloat16 else None))
        self.results[places] = device.from_host(results.view(_integer(results.itemsize)))


def _integer(size: int) -> str:
    return f"int{8 * size}"


def narrowed(device: Device, x: Any, form: str) -> tuple[Any, Any]:
    """Doubles rounded to a narrower format, as its bits, and a mask of those that are midpoints.

    Adding 2^52 units of the place that is kept, and taking them away again, rounds to that place;
    no conversion of the library's is used, which might round twice or write another NaN.
    """
    precision, least, end = FORMATS[form]
    dropped = 53 - precision
    magnitude = abs(x).clip(None, 2.0**end)
    exponent = device.reinterpreted(magnitude, "int64") & _EXPONENT
    units = device.reinterpreted(exponent + (dropped << 52), "float64")  # 2^52 of a normal number
    units = units.clip(2.0 ** (52 + least), None)  # of a subnormal one
    rounded = (magnitude + units) - units
    is_midpoint = abs(magnitude - rounded) * 2.0**53 == units  # both sides are exact
    bias = end - 1
    # The exponent of the format, and its fraction at the top: exact, and so are subnormal numbers.
    moved = device.reinterpreted(rounded * 2.0 ** (bias - 1023), "int64")
    sign = 1 << (8 * _BYTES[form] - 1)
    bits = moved >> dropped | (device.reinterpreted(x, "int64") >> 63 & sign)
    bits[x != x] = (4 * bias + 3) << (precision - 2)  # the positive quiet NaN
    return device.converted(bits, _integer(_BYTES[form])), is_midpoint


_BYTES = {"float32": 4, "float16": 2, "bfloat16": 2}
