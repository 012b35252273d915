# SPDX-License-Identifier: Apache-2.0
"""An exact state in the memory of a device, beside the same one on the host."""

import itertools

import gpu_cases
import numpy as np

from korvex_tools.gpu.package_loaders import COUNTS, WORD_BYTES, dtype_of

FORMATS = (
    "bool int8 int16 int32 int64 uint8 uint16 uint32 uint64 float16 bfloat16 float32 float64"
).split()


def host_native():
    """Not imported before a test asks: the extension stands in the built package."""
    from korvex.exact import _native

    return _native


def number_of(form: str) -> int:
    from korvex.exact._devices import FORMAT_NUMBERS

    return FORMAT_NUMBERS[form]


# --- Data


def states_cases() -> list[tuple[int, int, int, str]]:
    """Elements, stride, sign and kind of values: around the ends of tiles, and many."""
    many = 300_001 if gpu_cases.is_on_gpu() else 5001
    sizes = (0, 1, 31, 257, 513, 4097, many)
    kinds = itertools.cycle(("any bits", "moderate", "special"))
    signs = itertools.cycle((1, 1, -1))
    strides = itertools.cycle((1, 2, -1, -3, 1))
    return [
        (n, next(strides), next(signs), next(kinds)) for n in itertools.chain(sizes, sizes[::-1])
    ]


def draw_values(form: str, n: int, kind: str, seed: int = 0) -> np.ndarray:
    """Bits of the format; infinities and NaN only where the kind is special."""
    draw = np.random.default_rng([seed, n, len(kind)])
    dtype = dtype_of(form)
    if form == "bool":
        return draw.integers(0, 2, n).astype(dtype)
    raw = draw.integers(0, 256, n * dtype.itemsize, dtype=np.uint8).view(dtype)
    if "float" not in form:
        return raw % 8 if kind == "moderate" else raw
    bits = raw.view(f"u{dtype.itemsize}").copy()
    exponent = exponent_mask(form)
    if kind == "moderate":
        bits = bits & ~exponent | exponent >> 1 & exponent
    is_finite = bits & exponent != exponent
    kept = bits if kind == "special" else np.where(is_finite, bits, bits & ~exponent)
    return kept.astype(bits.dtype).view(dtype)


def exponent_mask(form: str) -> np.unsignedinteger:
    width, fraction = {
        "float16": (16, 10),
        "bfloat16": (16, 7),
        "float32": (32, 23),
        "float64": (64, 52),
    }[form]
    return np.dtype(f"u{width // 8}").type(2 ** (width - 1) - 2**fraction)


class Operand:
    """Values to be laid out at a distance of `stride` elements, backwards where it is negative."""

    def __init__(self, values: np.ndarray, stride: int) -> None:
        self.values = values
        self.stride = stride

    def laid_out(self) -> tuple[np.ndarray, int]:
        """Memory with the values, and the place of the first."""
        n = self.values.size
        memory = np.zeros(max(0, (n - 1) * abs(self.stride) + 1) if n else 0, self.values.dtype)
        first = (n - 1) * abs(self.stride) if self.stride < 0 and n else 0
        if n:
            memory[:: abs(self.stride)] = self.values[:: -1 if self.stride < 0 else 1]
        return memory, first


# --- The state


def require_same_words(found: np.ndarray, expected: np.ndarray) -> None:
    wrong = np.flatnonzero(found != expected)
    if wrong.size:
        first = int(wrong[0])
        raise AssertionError(f"word {first} is {found[first]}, on the host {expected[first]}")


class State:
    """Its words on the device, and on the host those of the same steps."""

    def __init__(self, launcher, kind: int) -> None:
        self._launcher = launcher
        self._device = launcher.device
        self._native = host_native()
        self._memory: list[int] = []
        self.kind = kind
        self.on_host = np.zeros(self._native.words(kind), dtype=np.int64)
        self._address = self._allocate(self.on_host.size)
        self.put(self.on_host)

    def __enter__(self) -> "State":
        return self

    def __exit__(self, *_) -> None:
        self._device.wait()
        for address in self._memory:
            self._device.free(address)

    def _allocate(self, words: int) -> int:
        self._memory.append(self._device.allocate(words))
        return self._memory[-1]

    def put(self, words: np.ndarray) -> None:
        self.on_host = words.copy()
        self._device.write(self._address, self.on_host)

    def add(self, kernel: str, operands: list[Operand], form: str, sign: int) -> None:
        arguments = [operands[0].values.size]
        for operand in operands:
            memory, first = operand.laid_out()
            size = memory.dtype.itemsize
            address = self._allocate(-(-memory.nbytes // WORD_BYTES))
            self._device.write(address, memory)
            arguments += [address + first * size, operand.stride * size, number_of(form)]
        counts = self._address + WORD_BYTES * (self.on_host.size - COUNTS)
        self._launcher.launch(kernel, *arguments, sign, self._address, counts)
        values = [operand.values for operand in operands]
        given = "bfloat16" if form == "bfloat16" else None
        x, y = values[0], values[1] if len(values) > 1 else None
        self._native.accumulate(self.kind, self.on_host, x, y, sign, 0, given, given)

    def run(self, kernel: str) -> None:
        """One that settles."""
        self._launcher.launch(kernel, self.kind, self._address)
        self._native.settle(self.kind, self.on_host)

    def rounded(self, kernel: str, form: str) -> int:
        """The bits of the value in a format, as the device rounds it."""
        out = self._allocate(1)
        self._device.write(out, np.zeros(1, dtype=np.uint64))
        of_products = int(self.kind == self._native.DOT)
        arguments = (self.kind, self._address, of_products, number_of(form), out)
        self._launcher.launch(kernel, *arguments)
        self._device.wait()
        return int(self._device.read(out, 1).view(np.uint64)[0])

    def require_same_as_host(self) -> None:
        """Settled here: a kernel leaves digits that are not."""
        self._device.wait()
        found = self._device.read(self._address, self.on_host.size).view(np.int64)
        self._native.settle(self.kind, found)
        require_same_words(found, self.on_host)
