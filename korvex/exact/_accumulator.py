# SPDX-License-Identifier: Apache-2.0
"""What all accumulators have in common: merging, comparing, copies, bytes, and reading them back.

The state of an accumulator has a fixed size, and depends on what was added alone: not on the order,
not on how it was cut into arrays, not on threads or processors. Steps of several threads on one
accumulator wait for each other; where they should not, give each thread its own and merge them.
"""

from __future__ import annotations

import threading
from typing import TYPE_CHECKING, Any, ClassVar, Self

from korvex.exact import _processes, _serial
from korvex.exact._arrays import Real
from korvex.exact._devices import Device, device_of
from korvex.exact._html import table
from korvex.exact._state import State, Words, new_state

if TYPE_CHECKING:
    from korvex.exact._moments import Moments
    from korvex.exact._sums import Dot, Sum

_CLASSES: dict[int, Any] = {}  # by the kind of their states

_placing = threading.Lock()  # while an accumulator gets its place


class Accumulator:
    """What the three kinds have in common."""

    __slots__ = ("__weakref__", "_is_placed", "_state")
    __array_ufunc__: ClassVar[None] = None  # `accumulator + array` is an error, not an array
    __hash__: ClassVar[None] = None  # type: ignore[assignment]
    _KIND: ClassVar[int]

    _state: State
    _is_placed: bool  # or the first array decides where the state is

    def __init_subclass__(cls) -> None:
        if "_KIND" in vars(cls):
            _CLASSES[cls._KIND] = cls

    def __init__(self, *, device: Any = None) -> None:
        self._state = new_state(self._KIND, device_of(device))
        self._is_placed = device is not None

    @classmethod
    def _of(cls, state: State, is_placed: bool = True) -> Self:
        made = cls()
        made._state = state
        made._is_placed = is_placed
        return made

    # --- The place of the state

    def _accumulate(self, x: Real, y: Real | None = None, sign: int = 1) -> None:
        if y is not None and x.device != y.device:
            raise TypeError(
                f"x is {_place(x.device)} and y is {_place(y.device)}: both must be in one place"
            )
        self._take_place(x.device, "x")
        self._state.accumulate(x, y, sign)

    def _take_place(self, device: Device | None, name: str) -> None:
        """Decide for a device where nothing has been added yet, or check that it is the one."""
        if not self._is_placed:
            with _placing:
                if not self._is_placed and self._state.device != device:
                    self._state = new_state(self._KIND, device)
                self._is_placed = True
        if self._state.device != device:
            raise TypeError(
                f"{name} is {_place(device)}, and the state of this {type(self).__name__} "
                f"{_place(self._state.device)}: what is added must be in one place"
            )

    # --- Of several

    def merge(self, other: Self, /) -> None:
        """Add what another accumulator of the same class was given. The other stays as it is.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total, part = exact.Sum(), exact.Sum()
        >>> total.add(np.array([1e16, 1.0]))
        >>> part.add(np.array([-1e16]))
        >>> total.merge(part)
        >>> float(total)
        1.0
        """
        if type(other) is not type(self):
            raise TypeError(f"other must be a {type(self).__name__}, not {type(other).__name__}")
        if not other._is_placed:  # nor has it been given anything
            return
        self._take_place(other._state.device, "other")
        self._state.merge(other._state)

    def __iadd__(self, other: Self) -> Self:
        """Merge."""
        if type(other) is not type(self):
            return NotImplemented
        self.merge(other)
        return self

    def __add__(self, other: Self) -> Self:
        """A new accumulator that has what both were given."""
        if type(other) is not type(self):
            return NotImplemented
        result = self.copy()
        result.merge(other)
        return result

    def __eq__(self, other: object) -> bool:
        """Whether both have the same class, exact values and counts, wherever they are."""
        if not isinstance(other, Accumulator) or type(other) is not type(self):
            return NotImplemented
        return self._state == other._state

    # --- Of several processes

    def all_reduce(self, group: Any = None, async_op: bool = False) -> Any:
        """Take what the accumulators of all processes of a group were given, in each of them.

        One message a process: `state` as a tensor of int64, which `torch.distributed` adds up. So
        the result has the same bits for any number of processes and any cut of the data.

        Parameters
        ----------
        group : ProcessGroup, optional
            None is the default group of `torch.distributed`.
        async_op : bool
            Whether to return at once. Leave the accumulator alone then until the work is waited
            for. Otherwise a call that fails leaves it as it was.

        Returns
        -------
        None, or the Work of `torch.distributed` if asynchronous

        Examples
        --------
        >>> import numpy as np
        >>> import torch.distributed as dist
        >>> from korvex import exact
        >>> dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
        >>> total = exact.Sum()
        >>> total.add(np.array([1e16, 1.0, -1e16]))
        >>> total.all_reduce()
        >>> total
        Sum(count=3, value=1.0)
        >>> dist.destroy_process_group()
        """
        return _processes.all_reduce_state(self._state, group, async_op)

    def reduce(self, dst: int, group: Any = None) -> None:
        """Take the same in one process; the accumulators of the others stay as they are.

        Parameters
        ----------
        dst : int
            The number of the process in the default group, as `torch.distributed.reduce` has it.
        group : ProcessGroup, optional
            None is the default group of `torch.distributed`.

        Examples
        --------
        >>> import numpy as np
        >>> import torch.distributed as dist
        >>> from korvex import exact
        >>> dist.init_process_group("gloo", store=dist.HashStore(), rank=0, world_size=1)
        >>> total = exact.Sum()
        >>> total.add(np.array([1e16, 1.0, -1e16]))
        >>> total.reduce(0)
        >>> total
        Sum(count=3, value=1.0)
        >>> dist.destroy_process_group()
        """
        _processes.reduce_state(self._state, dst, group)

    # --- What was added

    @property
    def count(self) -> int:
        """How many elements were added, less those that were subtracted.

        Raises
        ------
        ValueError
            If more elements, NaN or infinities were subtracted than added.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> total.add(np.zeros((3, 4)))
        >>> total.count
        12
        """
        return self._state.on_host().counts().elements

    @property
    def state(self) -> Words:
        """The accumulator's own words, as a writable array of int64; on a GPU, of its library.

        Reading it settles the digits, so equal accumulators have equal arrays. The array is no
        copy: what is added to its words is added to the accumulator. A sum of the arrays of up to
        2^31 - 1 processes is therefore the sum of all their elements, with any library that adds
        int64 (``comm.Allreduce(MPI.IN_PLACE, accumulator.state, MPI.SUM)``). Read it anew each
        time: `add` leaves digits in it that are not settled.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> a, b = exact.Sum(), exact.Sum()
        >>> a.add(np.array([1e300, 1.0]))
        >>> b.add(np.array([-1e300, 2.0]))
        >>> a.state[:] += b.state
        >>> float(a), a.count, a.state.shape, a.state.dtype
        (3.0, 4, (72,), dtype('int64'))
        """
        self._is_placed = True
        return self._state.handed_out()

    def checksum(self) -> str:
        """Return SHA-256 of the class and the settled state, as 64 hexadecimal digits.

        Equal accumulators have equal checksums on every machine, however their elements were cut.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> whole, parts = exact.Sum(), exact.Sum()
        >>> whole.add(np.arange(10.0))
        >>> for part in np.split(np.arange(10.0)[::-1], 5):
        ...     parts.add(part)
        >>> whole.checksum() == parts.checksum()
        True
        >>> whole.checksum()[:16]
        'd1fb835c6417181c'
        """
        return _serial.digest_of(self._state).hex()

    # --- Copies

    def copy(self) -> Self:
        """Return an independent copy.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import exact
        >>> total = exact.Sum()
        >>> before = total.copy()
        >>> total.add(np.array([1.0]))
        >>> before, total
        (Sum(count=0, value=0.0), Sum(count=1, value=1.0))
        """
        return self._of(self._state.copy(), self._is_placed)

    def __copy__(self) -> Self:
        return self.copy()

    def __deepcopy__(self, memo: dict[int, Any]) -> Self:
        return self.copy()

    def __bytes__(self) -> bytes:
        """The settled state with its class and a SHA-256; `exact.loads` reads it back."""
        return _serial.to_bytes(self._state)

    def __reduce__(self) -> tuple[Any, ...]:
        return loads, (bytes(self),)

    # --- Text

    def __repr__(self) -> str:
        elements = self._state.raw_counts().elements
        try:
            values = ", ".join(f"{name}={value}" for name, value in self._values().items())
        except ValueError:  # more was subtracted than added, which a debugger may well look at
            values = "value undefined"
        return f"{type(self).__name__}(count={elements}, {values})"

    def _repr_html_(self) -> str:
        """The same as a table, with the checksum, for notebooks."""
        rows = {"count": f"{self._state.raw_counts().elements:,}"}
        try:
            rows |= self._values() | self._details() | {"checksum": self.checksum()}
        except ValueError:
            rows["value"] = "undefined: more was subtracted than added"
        return table(f"korvex.exact.{type(self).__name__}", rows.items())

    def _values(self) -> dict[str, str]:
        """What it stands for, by name, each rounded to float64."""
        raise NotImplementedError

    def _details(self) -> dict[str, str]:
        """More that a notebook has room for."""
        raise NotImplementedError


def _place(device: Device | None) -> str:
    return "on the host" if device is None else device.description


def loads(data: bytes | bytearray | memoryview, /) -> Sum | Dot | Moments:
    """Read an accumulator back from the bytes that ``bytes(accumulator)`` gave.

    Parameters
    ----------
    data : bytes, bytearray or memoryview

    Raises
    ------
    ValueError
        If the bytes are damaged, or are not those of an accumulator.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact
    >>> total = exact.Sum()
    >>> total.add(np.array([1.0, 2.0**-60]))
    >>> data = bytes(total)
    >>> len(data), exact.loads(data) == total
    (620, True)
    >>> exact.loads(data[:-1])
    Traceback (most recent call last):
    ...
    ValueError: the bytes of the accumulator are damaged: another SHA-256 is expected
    """
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"data must be bytes, not {type(data).__name__}")
    state = _serial.from_bytes(bytes(data))
    made: Sum | Dot | Moments = _CLASSES[state.kind]._of(state)
    return made
