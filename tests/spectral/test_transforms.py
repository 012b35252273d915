# SPDX-License-Identifier: Apache-2.0
"""What the transforms give: routes, values against torch.fft and 200 bits, kinds of operands."""

import ast
import math
import re
import warnings
from pathlib import Path

import device
import gmpy2
import numpy
import pytest
import reference_runtime
import torch
from hypothesis import given
from hypothesis import strategies as st
from operation_log import operations

UNIT = 2.0**-53
TABLE = Path(__file__).resolve().parents[2] / "docs" / "transforms.md"
LOST = "Casting complex values to real discards the imaginary part"


def bound(n):
    """Of the relative error of a row in the 2-norm; derived in docs/transforms.md."""
    return 14 * UNIT * math.log2(n) if n > 1 else 0.0


def operand(kind, shape, seed=5):
    generator = torch.Generator().manual_seed(seed)
    real = torch.randn(shape, dtype=torch.float64, generator=generator)
    imaginary = torch.randn(shape, dtype=torch.float64, generator=generator)
    return device.to_device(
        {
            "real": lambda: real,
            "complex": lambda: torch.complex(real, imaginary),
            "complex64": lambda: torch.complex(real, imaginary).to(torch.complex64),
            "float32": lambda: real.float(),
            "integer": lambda: (real * 10).long(),
        }[kind]()
    )


def host_bits(tensor):
    plain = tensor.cpu().resolve_conj().contiguous()
    return str(plain.dtype), tuple(plain.shape), plain.numpy().tobytes()


def without_warning_of_the_cast(call):
    with warnings.catch_warnings():
        warnings.filterwarnings("ignore", LOST)
        return call()


def relative_error(result, expected):
    difference = (result.cpu() - expected.cpu()).abs()
    return (difference.pow(2).sum(-1).sqrt() / expected.cpu().abs().pow(2).sum(-1).sqrt()).max()


# ---- routes: the table of the documents ----


def table_rows():
    pattern = r"^\| `(tqx_\w+)\(x(.*?)\)` \| (\w+) (\(.*?\)) \| (\S+) \| (\w+) (\(.*?\)) \|$"
    for row in re.findall(pattern, TABLE.read_text(), re.MULTILINE):
        name, options, kind, shape, route, dtype, result = row
        keywords = dict(pair.split("=") for pair in options.strip(", ").split(", ") if pair)
        yield pytest.param(
            name,
            {key: int(number) for key, number in keywords.items()},
            operand(kind, ast.literal_eval(shape)),
            route,
            (f"torch.{dtype}", ast.literal_eval(result)),
            id=f"{name}{shape}{options} of {kind}",
        )


ROWS = list(table_rows())


def test_all_rows_of_the_table_are_read():
    lines = [line for line in TABLE.read_text().splitlines() if line.startswith("| `tqx_")]
    assert len(ROWS) == len(lines) > 40


@pytest.mark.parametrize("name, options, x, route, result", ROWS)
def test_call_takes_the_route_of_the_table(module, monkeypatch, name, options, x, route, result):
    taken = []
    butterfly = module._tqx_fft_butterfly
    monkeypatch.setattr(
        module,
        "_tqx_fft_butterfly",
        lambda x, inverse: taken.append("radix-2") or butterfly(x, inverse),
    )
    for transform in ("fft", "ifft"):
        original = getattr(torch.fft, transform)
        monkeypatch.setattr(
            torch.fft,
            transform,
            lambda *args, original=original, **kwargs: (
                taken.append("torch.fft") or original(*args, **kwargs)
            ),
        )
    before = host_bits(x)
    returned = without_warning_of_the_cast(lambda: getattr(module, name)(x, **options))
    assert taken == [route]
    assert (str(returned.dtype), tuple(returned.shape)) == result and returned.is_cuda
    assert host_bits(x) == before


@pytest.mark.parametrize("name, options, x, route, result", ROWS)
def test_operations_are_those_of_plain_python(module, monkeypatch, name, options, x, route, result):
    for shared in ("torch", "cp", "_NATIVE_LOADER"):
        monkeypatch.setattr(reference_runtime, shared, getattr(module, shared))

    def steps(runtime):
        lines, returned = without_warning_of_the_cast(
            lambda: operations(lambda: getattr(runtime, name)(x, **options))
        )
        return lines, host_bits(returned)

    assert steps(module) == steps(reference_runtime)


# ---- values ----


def test_forward_of_length_two(runtime):
    assert runtime.tqx_fft(device.tensor([1.0, 3.0])).tolist() == [4.0, -2.0]


def test_forward_of_an_impulse(runtime):
    assert runtime.tqx_fft(device.tensor([1.0, 0.0, 0.0, 0.0])).tolist() == [1.0] * 4


def test_forward_of_a_shifted_impulse_shows_the_roundings_of_the_angles(runtime):
    result = runtime.tqx_fft(device.tensor([0.0, 1.0, 0.0, 0.0])).tolist()
    expected = [1.0, -1.0j, -1.0, 1.0j]
    assert all(abs(r - t) < 1e-15 for r, t in zip(result, expected, strict=True))
    assert abs(result[1].real) == math.cos(math.pi / 2) == 6.123233995736766e-17


def exact_transform(row, inverse):
    """The sum of the definition with 200 bits, rounded to complex128 at the end."""
    n = len(row)
    with gmpy2.context(precision=200):
        turn = (2 if inverse else -2) * gmpy2.const_pi() / n
        roots = [gmpy2.mpc(gmpy2.cos(turn * k), gmpy2.sin(turn * k)) for k in range(n)]
        values = [gmpy2.mpc(complex(v)) for v in row]
        sums = [sum(v * roots[j * k % n] for j, v in enumerate(values)) for k in range(n)]
        return [complex(s / n if inverse else s) for s in sums]


@pytest.mark.parametrize("inverse", [False, True], ids=["forward", "inverse"])
@pytest.mark.parametrize("n", [1, 2, 4, 8, 16, 32, 64, 128])
def test_radix_two_route_is_within_its_bound_of_the_exact_transform(module, n, inverse):
    x = operand("complex", (n,), seed=n)
    expected = torch.tensor(exact_transform(x.tolist(), inverse), dtype=torch.complex128)
    assert relative_error(module._tqx_fft_butterfly(x, inverse), expected) <= bound(n)


@pytest.mark.parametrize("n", [2, 8, 64, 512])
def test_both_directions_are_within_twice_the_bound_of_torch(module, n):
    x, z = operand("real", (3, n)), operand("complex", (3, n))
    assert relative_error(module.tqx_fft(x), torch.fft.fft(x)) <= 2 * bound(n)
    assert relative_error(module.tqx_ifft(z), torch.fft.ifft(z)) <= 2 * bound(n)
    # What is left of a row after the cut holds at least half of its squared norm.
    assert relative_error(module.tqx_rfft(x), torch.fft.rfft(x)) <= 2**1.5 * bound(n)
    spectrum = torch.fft.rfft(x)
    assert relative_error(module.tqx_irfft(spectrum), torch.fft.irfft(spectrum)) <= 2 * bound(n)


@given(
    st.integers(1, 5),
    st.lists(st.floats(-1e100, 1e100, allow_subnormal=False), min_size=32, max_size=32),
)
def test_forward_and_inverse_return_the_operand(module, power, numbers):
    x = device.tensor(numbers[: 2**power])
    returned = module.tqx_ifft(module.tqx_fft(x))
    largest = max(map(abs, numbers))
    error = (returned.cpu() - x.cpu()).abs().pow(2).sum().sqrt()
    # Both directions, in the norm of the operand, whose elements the largest bounds.
    assert error <= 2.01 * bound(2**power) * math.sqrt(2**power) * largest


@pytest.mark.parametrize("n", [2, 8, 64])
def test_real_inverse_returns_the_operand(module, n):
    x = operand("real", (2, n))
    returned = module.tqx_irfft(module.tqx_rfft(x))
    assert returned.dtype == torch.float64
    assert relative_error(returned, x) <= 2.01 * 2 * bound(n)


@pytest.mark.parametrize("inverse", [False, True])
def test_rows_of_a_batch_are_independent(module, inverse):
    x = operand("complex", (3, 8))
    rows = [module._tqx_fft_butterfly(row.clone(), inverse) for row in x]
    whole = module._tqx_fft_butterfly(x, inverse)
    assert [host_bits(row) for row in whole] == [host_bits(row) for row in rows]


def test_inverse_divides_once_at_the_end(module):
    """By n: halving at each stage would round a quarter of three times the least to nothing."""
    least = 2.0**-1074
    x = device.tensor([least, least, least, 0.0], torch.complex128)
    assert module.tqx_ifft(x).tolist()[0].real == least


# ---- operands ----


def test_length_one_comes_back_as_the_same_object(module):
    x = operand("complex", (4, 1))
    assert module._tqx_fft_butterfly(x) is x and module.tqx_ifft(x) is x


def test_result_shares_no_memory_with_the_operand(module):
    x = operand("real", (8,))
    for name in ("tqx_fft", "tqx_rfft"):
        assert getattr(module, name)(x).data_ptr() != x.data_ptr()
    z = operand("complex", (5,))
    for name in ("tqx_ifft", "tqx_irfft"):
        assert getattr(module, name)(z).data_ptr() != z.data_ptr()


@pytest.mark.parametrize("n", [4, 6, 8])
def test_padding_follows_the_data_and_truncation_cuts_its_end(module, n):
    x = operand("real", (6,))
    plain = x.tolist()[:n] + [0.0] * (n - 6)
    assert host_bits(module.tqx_fft(x, n=n)) == host_bits(module.tqx_fft(device.tensor(plain)))


@pytest.mark.parametrize("n", [5, 8])
@pytest.mark.parametrize("name", ["tqx_fft", "tqx_rfft"])
def test_imaginary_part_is_gone_before_the_transform(module, name, n):
    z = operand("complex", (n,))
    result = without_warning_of_the_cast(lambda: getattr(module, name)(z))
    assert host_bits(result) == host_bits(getattr(module, name)(z.real.clone()))


@pytest.mark.usefixtures("every_warning")
def test_loss_of_the_imaginary_part_is_reported_by_torch(module):
    with pytest.warns(UserWarning, match=LOST):
        module.tqx_fft(operand("complex", (4,)))
    with pytest.warns(UserWarning, match=LOST):
        module.tqx_ifft(operand("real", (4,)))


def test_real_operand_of_the_inverse_stays_real(module):
    x = device.tensor([4.0, -2.0])
    result = without_warning_of_the_cast(lambda: module.tqx_ifft(x))
    assert result.dtype == torch.float64 and result.tolist() == [1.0, 3.0]


def test_number_of_points_is_ignored_on_the_radix_two_route_of_the_inverse(module):
    z = operand("complex", (8,))
    plain = host_bits(module.tqx_ifft(z))
    assert [host_bits(module.tqx_ifft(z, n)) for n in (5, 8, 16, -3)] == [plain] * 4


def test_transform_of_an_empty_axis_is_what_torch_makes_of_it(module):
    for call, expected in [
        (lambda: module.tqx_fft(operand("real", (4,)), 0), lambda x: torch.fft.fft(x, n=0)),
        (lambda: module.tqx_ifft(operand("complex", (0,))), lambda x: torch.fft.ifft(x)),
    ]:
        with pytest.raises(RuntimeError) as caught:
            call()
        with pytest.raises(RuntimeError) as of_torch:
            expected(torch.zeros(0, dtype=torch.complex128))
        assert str(caught.value) == str(of_torch.value)


def test_negative_number_of_points_is_the_error_of_narrow(module):
    with pytest.raises(RuntimeError, match="narrow"):
        module.tqx_fft(operand("real", (4,)), -1)


@pytest.mark.parametrize("name", ["tqx_fft", "tqx_ifft", "tqx_rfft", "tqx_irfft"])
def test_dimension_out_of_range_is_an_index_error(module, name):
    with pytest.raises(IndexError):
        getattr(module, name)(operand("real", (4,)), dim=1)


def test_inner_bins_are_conjugated_and_reversed(module):
    z = operand("complex", (5,))
    bins = z.cpu()
    spectrum = torch.cat([bins, bins[1:-1].conj().flip(0)])
    expected = torch.fft.ifft(spectrum).real
    result = module.tqx_irfft(z)
    assert numpy.allclose(result.cpu(), expected, rtol=0, atol=4 * bound(8) * 8)
    assert host_bits(module.tqx_irfft(z, 7)) == host_bits(result)


def test_odd_number_of_points_pads_the_even_spectrum(module):
    z = operand("complex", (4,))
    bins = z.cpu()
    spectrum = torch.cat([bins, bins[1:-1].conj().flip(0)])
    result = module.tqx_irfft(z, 7)
    assert host_bits(result) == host_bits(torch.fft.ifft(device.to_device(spectrum), n=7).real)


# ---- operands that do not fit ----


@pytest.mark.parametrize("name", ["tqx_fft", "tqx_ifft", "tqx_rfft", "tqx_irfft"])
def test_limbs_are_not_collapsed(runtime, name):
    with pytest.raises(AttributeError, match="is_cuda"):
        getattr(runtime, name)(runtime.TQXResult([torch.ones(4)]))


@pytest.mark.parametrize("operand", [[1.0], 2.0, None])
def test_radix_two_transform_of_what_has_no_shape(runtime, operand):
    with pytest.raises(AttributeError, match="shape"):
        runtime._tqx_fft_butterfly(operand)


def test_radix_two_transform_asks_no_device(runtime):
    """It is internal: the test is made by those who call it."""
    x = torch.tensor([1.0, 3.0], dtype=torch.complex128)
    assert runtime._tqx_fft_butterfly(x).tolist() == [4.0, -2.0]


def test_length_that_is_no_power_of_two_is_not_caught(runtime):
    with pytest.raises(IndexError):
        runtime._tqx_fft_butterfly(torch.zeros(6, dtype=torch.complex128))
