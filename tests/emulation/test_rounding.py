# SPDX-License-Identifier: Apache-2.0
"""Square roots and remainders on the device: exact, as CUDA documents them.

Expected bits come from whole numbers and from Python's own fmod, not from torch and not from numpy.
The same tests are meant for hardware.
"""

import math
import operator
import random
import struct
from fractions import Fraction

import device
import pytest
import torch
from hypothesis import given
from hypothesis import strategies as st

DTYPES = {torch.float64: ("<d", "<Q", 64, 52, -1074), torch.float32: ("<f", "<I", 32, 23, -149)}
SPECIAL = [0.0, -0.0, 1.0, -1.0, math.inf, -math.inf, math.nan, 2.0**-149, 29.0 / 3, 1e30]
COUNT = 4000


def bits(values):
    """Of each double; every NaN counts as one."""
    return [None if math.isnan(v) else struct.pack("<d", v) for v in values]


def root(x, dtype):
    """The square root rounded to nearest, from an integer root with two bits to spare."""
    _, _, _, fraction_bits, lowest = DTYPES[dtype]
    if math.isnan(x) or x < 0:
        return math.nan
    if x == 0 or math.isinf(x):
        return x
    exponent = (math.frexp(x)[1] + 1) // 2 - fraction_bits - 3
    square = Fraction(x) / Fraction(4) ** exponent
    floor = math.isqrt(math.floor(square))
    sticky = 2 * floor + (floor * floor != square)
    drop = sticky.bit_length() - (fraction_bits + 1)
    kept, rest = divmod(sticky, 2**drop)
    half = 2 ** (drop - 1)
    kept += rest > half or (rest == half and kept % 2 == 1)
    assert exponent - 1 + drop > lowest  # no root is subnormal
    return math.ldexp(kept, exponent - 1 + drop)


def rest(x, y):
    return math.nan if math.isnan(x) or math.isinf(x) or y == 0 else math.fmod(x, y)


def rounded(value, dtype):
    if dtype == torch.float64 or not math.isfinite(value):
        return value
    try:
        return struct.unpack("<f", struct.pack("<f", value))[0]
    except OverflowError:
        return math.copysign(math.inf, value)


def remainder(x, y, dtype):
    r = rest(x, y)
    if r == 0 or math.isnan(r) or (r < 0) == (y < 0):
        return r
    return rounded(r + y, dtype)  # for float32 the sum in float64 rounds twice without harm


def sample(seed, dtype, count=COUNT):
    """Every pattern of bits alike, infinities and NaN among them, then numbers of moderate size."""
    form, pattern_form, width, _, _ = DTYPES[dtype]
    source = random.Random(seed)
    patterns = [
        struct.unpack(form, struct.pack(pattern_form, source.getrandbits(width)))[0]
        for _ in range(count)
    ]
    return SPECIAL + patterns + [rounded(source.uniform(-100, 100), dtype) for _ in range(count)]


def values(tensor):
    return tensor.cpu().double().flatten().tolist()


ROOTS = {
    "function": lambda x: torch.sqrt(x),
    "keyword": lambda x: torch.sqrt(input=x),
    "method": lambda x: x.sqrt(),
    "in place": lambda x: x.clone().sqrt_(),
    "out": lambda x: torch.sqrt(x, out=torch.empty_like(x)),
    "out onto itself": lambda x: (lambda y: torch.sqrt(y, out=y))(x.clone()),
    "operator": lambda x: x**0.5,
    "pow": lambda x: torch.pow(x, 0.5),
    "pow by keyword": lambda x: torch.pow(x, exponent=0.5),
    "pow in place": lambda x: x.clone().pow_(0.5),
    "operator in place": lambda x: operator.ipow(x.clone(), 0.5),
    "strided": lambda x: torch.stack([x, x], 1)[:, 1].sqrt(),
    "one by one": lambda x: torch.stack([element.sqrt() for element in x[:200]]),
    "into the other part": lambda x: torch.sqrt(x, out=torch.stack([x, x], 1)[:, 0]),
}


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("take", ROOTS.values(), ids=ROOTS)
def test_every_form_of_square_root_is_correctly_rounded(take, dtype):
    numbers = list(map(abs, sample("root", dtype)))
    result = take(device.tensor(numbers, dtype))
    assert result.dtype == dtype and result.is_cuda
    assert bits(values(result)) == bits([root(x, dtype) for x in numbers])[: result.numel()]


def test_square_root_of_special_values():
    found = values(torch.sqrt(device.tensor([-0.0, 0.0, -1.0, -math.inf, math.inf, math.nan])))
    assert bits(found) == bits([-0.0, 0.0, math.nan, math.nan, math.inf, math.nan])


@given(st.floats(min_value=0, allow_infinity=False))
def test_any_square_root(x):
    assert torch.sqrt(device.tensor([x])).item() == root(x, torch.float64)


def test_root_of_a_variance():
    x = device.tensor([0.0, 0.0, 29.0])
    variance = device.choose().runtime.tqx_var(x).item()
    found = device.choose().runtime.tqx_std(x).item()
    assert found == root(variance, torch.float64) == 16.743157806499145


def test_square_roots_of_other_types():
    integers = device.tensor(list(range(2000)), torch.int64)
    single = [root(float(i), torch.float32) for i in range(2000)]
    assert values(integers.sqrt()) == values(integers**0.5) == single
    assert integers.sqrt().dtype == torch.float32
    half = device.tensor(list(range(2000)), torch.float16)
    assert torch.equal(half.sqrt().cpu(), torch.tensor(single).half())
    wide = torch.sqrt(integers, out=torch.empty(2000, dtype=torch.float64, device="cuda"))
    assert values(wide) == single
    assert torch.sqrt(device.tensor([4j], torch.complex128)).is_cuda


def test_gradient_of_a_square_root_uses_the_root():
    numbers = [abs(x) for x in sample("gradient", torch.float64) if 1e-200 < abs(x) < 1e200]
    x = device.tensor(numbers).requires_grad_()
    result = x.sqrt()
    result.sum().backward()
    assert result.grad_fn is not None and x.grad.is_cuda
    assert values(x.grad) == [1.0 / (2 * root(n, torch.float64)) for n in numbers]
    y = device.tensor([29.0]).requires_grad_()
    (y * 1).sqrt_().backward()
    assert y.grad.item() == 1.0 / (2 * math.sqrt(29.0))


def test_root_of_a_view_with_the_sign_bit_set_apart():
    x = torch.complex(device.tensor([1.0, 2.0]), device.tensor([-29.0, -3.0])).conj().imag
    assert x.is_neg() and values(x.sqrt()) == [math.sqrt(29.0), math.sqrt(3.0)]


def test_root_in_inference_mode():
    with torch.inference_mode():
        assert torch.sqrt(device.tensor([29.0])).item() == math.sqrt(29.0)


# --- Remainders

RESTS = {
    "function": lambda x, y: torch.fmod(x, y),
    "keywords": lambda x, y: torch.fmod(input=x, other=y),
    "method": lambda x, y: x.fmod(y),
    "in place": lambda x, y: x.clone().fmod_(y),
    "out": lambda x, y: torch.fmod(x, y, out=torch.empty_like(x)),
    "out onto the divisor": lambda x, y: (lambda z: torch.fmod(x, z, out=z))(y.clone()),
}
REMAINDERS = {
    "function": lambda x, y: torch.remainder(x, y),
    "method": lambda x, y: x.remainder(y),
    "in place": lambda x, y: x.clone().remainder_(y),
    "out": lambda x, y: torch.remainder(x, y, out=torch.empty_like(x)),
    "operator": lambda x, y: x % y,
    "operator in place": lambda x, y: operator.imod(x.clone(), y),
}


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("take", RESTS.values(), ids=RESTS)
def test_every_form_of_fmod_is_exact(take, dtype):
    x, y = sample("x", dtype), sample("y", dtype)
    found = take(device.tensor(x, dtype), device.tensor(y, dtype))
    assert bits(values(found)) == bits([rest(a, b) for a, b in zip(x, y, strict=True)])


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("take", REMAINDERS.values(), ids=REMAINDERS)
def test_every_form_of_remainder_is_exact_but_for_one_addition(take, dtype):
    x, y = sample("x", dtype), sample("y", dtype)
    found = take(device.tensor(x, dtype), device.tensor(y, dtype))
    assert bits(values(found)) == bits([remainder(a, b, dtype) for a, b in zip(x, y, strict=True)])


def test_remainders_of_and_by_numbers():
    numbers = [x for x in sample("numbers", torch.float64) if math.isfinite(x) and x != 0]
    x = device.tensor(numbers)
    assert values(torch.fmod(x, 3)) == [math.fmod(n, 3) for n in numbers]
    assert values(1e308 % x) == [remainder(1e308, n, torch.float64) for n in numbers]
    number = torch.tensor(0.1, dtype=torch.float64)
    assert values(x % number) == [remainder(n, 0.1, torch.float64) for n in numbers]
    table = device.tensor([[1e300], [7.5]]) % device.tensor([3.0, -4.0])
    assert values(table) == [remainder(a, b, torch.float64) for a in (1e300, 7.5) for b in (3, -4)]


def test_remainders_of_integers_stay_integers():
    x = device.tensor([7, -7, 2**62 + 1], torch.int64)
    assert (x % 4).tolist() == [3, 1, 1] and torch.fmod(x, 4).tolist() == [3, -3, 1]


def test_errors_are_those_of_torch():
    x = device.tensor([1.0, 2.0])
    with pytest.raises(RuntimeError, match="must match the size"):
        torch.fmod(x, device.tensor([1.0, 2.0, 3.0]))
    with pytest.raises(RuntimeError, match="can't be cast"):
        device.tensor([4], torch.int64).sqrt_()
    with pytest.raises(TypeError):
        torch.sqrt("4")
    with pytest.raises(RuntimeError, match="same device"):
        x.fmod(torch.tensor([1.0, 2.0], dtype=torch.float64))


def test_gradient_of_a_remainder():
    x = device.tensor([7.5, -7.5]).requires_grad_()
    (x % 2).sum().backward()
    assert x.grad.tolist() == [1.0, 1.0]


# --- The script that compares all such operations


@pytest.mark.skipif(not device.choose().emulated, reason="compares the emulated device with MPFR")
def test_operations_that_cuda_rounds_correctly_are_so_on_the_emulated_device():
    pytest.importorskip("gmpy2")
    from korvex_tools import compare_torch_on_cpu

    names = set()
    for line in list(compare_torch_on_cpu.table(2000))[4:]:
        name, *cells, documented = (cell.strip() for cell in line.strip("|").split("|"))
        if documented.startswith((compare_torch_on_cpu.ROUNDED, compare_torch_on_cpu.EXACT)):
            assert (cells[2], cells[5]) == ("0", "0"), name
            names.add(name)
    assert {"`sqrt(a)`", "`a / b`", "`fmod(a, b)`", "`remainder(a, b), a % b`"} <= names
