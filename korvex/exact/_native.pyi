# SPDX-License-Identifier: Apache-2.0
"""What the C++ half gives: states of exact sums, and functions of arrays and of their elements.

A state is a writable contiguous buffer of int64: digits of radix 2^32, then four counts (+infinity,
-infinity, NaN, elements). An operand is a buffer of native numbers of any rank and strides, or an
object with `__dlpack__` on the CPU; the format "bfloat16" says what a buffer of uint16 stands for.
"""

from collections.abc import Buffer

SUM: int
DOT: int
MOMENTS: int

TOTAL: int
MEAN: int
VARIANCE: int
DEVIATION: int
DOT_PRODUCT: int
NORM: int

EXP: int
LOG: int
SQRT: int
SIGMOID: int
TANH: int

def words(kind: int, /) -> int: ...
def instruction_set() -> str: ...
def set_instruction_set(name: str, /) -> None: ...
def accumulate(
    kind: int,
    state: Buffer,
    x: object,
    y: object | None,
    sign: int,
    threads: int,
    x_format: str | None = None,
    y_format: str | None = None,
) -> None: ...
def settle(kind: int, state: Buffer, /) -> None: ...
def merge(kind: int, state: Buffer, other: Buffer, sign: int, /) -> None: ...
def limbs(
    kind: int, state: Buffer, part: int, count: int, format: str = "float64"
) -> tuple[float, ...]: ...
def sum(x: object, format: str, threads: int, x_format: str | None = None) -> float: ...
def vecdot(
    x: object,
    y: object,
    format: str,
    threads: int,
    x_format: str | None = None,
    y_format: str | None = None,
) -> float: ...
def cumulative_sum(
    x: object,
    out: Buffer,
    format: str,
    threads: int,
    x_format: str | None = None,
    inner: int = 1,
    has_initial: bool = False,
) -> None: ...
def column_sums(
    x: object, out: Buffer, format: str, threads: int, x_format: str | None = None
) -> None: ...
def reduce_axes(
    function: int,
    operands: tuple[object, ...],
    formats: tuple[str | None, ...],
    kept: int,
    out: Buffer,
    format: str,
    threads: int,
    divisor: int = 1,
    scale: int = 1,
    is_negative: bool = False,
) -> None: ...
def matmul(
    a: object,
    b: object,
    out: Buffer,
    format: str,
    threads: int,
    a_format: str | None = None,
    b_format: str | None = None,
) -> None: ...
def map(
    function: int, x: object, out: Buffer, format: str, threads: int, x_format: str | None = None
) -> None: ...
def segment_sums(
    x: object,
    axis: int,
    ids: object,
    segments: int,
    initial: object | None,
    out: Buffer,
    format: str,
    threads: int,
    x_format: str | None = None,
    initial_format: str | None = None,
) -> int: ...
def exact_integer(kind: int, state: Buffer, part: int, /) -> int: ...
