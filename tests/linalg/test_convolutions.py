# SPDX-License-Identifier: Apache-2.0
"""tqx_conv2d and tqx_conv_transpose2d on the device under test: sizes, values, failures.

torch's own convolutions run on the host, where whole numbers give exact results.
"""

import random
from fractions import Fraction

import device
import pytest
import torch
from device import tensor

from korvex_tools.references import exact_linear
from korvex_tools.references.exact_arithmetic import bits, round_to_double

UNIT = Fraction(1, 2**53)
MATMUL = "tqx_matmul_kernel"
NOT_CUDA = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"
host_conv = torch.nn.functional.conv2d
host_transposed = torch.nn.functional.conv_transpose2d

SIZES = [(5, 5), (6, 7), (9, 4)]
KERNELS = [(1, 1), (2, 2), (3, 3), (3, 2), (1, 4)]


def whole(seed, *extents):
    generator = torch.Generator().manual_seed(seed)
    return torch.randint(-9, 10, extents, generator=generator).double()


def normal(seed, *extents):
    generator = torch.Generator().manual_seed(seed)
    return torch.randn(extents, generator=generator, dtype=torch.float64)


def host_bits(values):
    return tuple(values.shape), [bits(v) for v in values.cpu().flatten().tolist()]


def run(function, x, weight, *given, **named):
    return function(device.to_device(x), device.to_device(weight), *given, **named)


# ---- values ----


@pytest.mark.parametrize("batch", [1, 2])
@pytest.mark.parametrize("stride", [1, 2, 3])
@pytest.mark.parametrize("padding", [0, 1, 2])
@pytest.mark.parametrize("kernel", KERNELS)
def test_conv2d_of_whole_numbers_has_torchs_bits(module, launches, batch, stride, padding, kernel):
    for size in SIZES:
        x, weight = whole(1, batch, 3, *size), whole(2, 4, 3, *kernel)
        del launches[:]
        result = run(module.tqx_conv2d, x, weight, stride, padding)
        expected = host_conv(x, weight, stride=stride, padding=padding) + 0.0  # no sign of zero
        assert host_bits(result) == host_bits(expected)
        assert launches == [MATMUL] * batch


@pytest.mark.parametrize("batch", [1, 2])
@pytest.mark.parametrize("stride", [1, 2, 3])
@pytest.mark.parametrize("padding", [0, 1, 2])
@pytest.mark.parametrize("kernel", KERNELS)
def test_conv_transpose2d_of_whole_numbers_has_torchs_bits(
    module, launches, batch, stride, padding, kernel
):
    x, weight = whole(3, batch, 3, 6, 5), whole(4, 3, 2, *kernel)
    for output_padding in range(stride):
        expected = host_transposed(
            x, weight, stride=stride, padding=padding, output_padding=output_padding
        )
        del launches[:]
        result = run(module.tqx_conv_transpose2d, x, weight, stride, padding, output_padding)
        assert host_bits(result + 0.0) == host_bits(expected + 0.0)
        assert launches == [MATMUL] * batch


def test_conv2d_is_the_rounding_of_the_exact_sum(module):
    source = random.Random(5)

    def wide(*extents):
        if not extents:
            return source.gauss(0, 1) * 2.0 ** source.randrange(-40, 40)
        return [wide(*extents[1:]) for _ in range(extents[0])]

    x, weight = wide(2, 2, 5, 6), wide(3, 2, 3, 2)
    for stride, padding in [(1, 0), (2, 1), (3, 2)]:
        exact = exact_linear.convolution(x, weight, stride, padding)
        result = module.tqx_conv2d(tensor(x), tensor(weight), stride, padding)
        expected = [round_to_double(v) for m in exact for c in m for row in c for v in row]
        assert [bits(v) for v in result.flatten().tolist()] == [bits(v) for v in expected]


def test_conv2d_is_near_torchs_on_random_data(module):
    # torch adds 48 products in some order: at most 48 units of the sum of sizes, and ours adds one.
    x, weight = normal(6, 3, 4, 9, 7), normal(7, 5, 4, 4, 3)
    bound = host_conv(x.abs(), weight.abs(), stride=2, padding=1) * float(50 * UNIT)
    result = run(module.tqx_conv2d, x, weight, 2, 1).cpu()
    assert bool(((result - host_conv(x, weight, stride=2, padding=1)).abs() <= bound).all())


def test_conv_transpose2d_is_near_torchs_on_random_data(module):
    # Ours: one rounding for each column value, then at most 12 overlapping ones are added plainly.
    # torch's: the same additions over 4 channels' plain sums.
    x, weight = normal(8, 3, 4, 5, 6), normal(9, 4, 5, 4, 3)
    options = {"stride": 1, "padding": 1}
    bound = host_transposed(x.abs(), weight.abs(), **options) * float(32 * UNIT)
    result = run(module.tqx_conv_transpose2d, x, weight, **options).cpu()
    assert bool(((result - host_transposed(x, weight, **options)).abs() <= bound).all())


def test_product_of_conv2d_loses_nothing_that_cancels(module):
    # 2**60 * 1 + 1 * 1 - 2**60 * 1 is 1, and 0 or 2**60 in most orders of plain additions.
    x = tensor([[[[2.0**60, 1.0, -(2.0**60)]]]])
    assert module.tqx_conv2d(x, tensor([[[[1.0, 1.0, 1.0]]]])).tolist() == [[[[1.0]]]]


def test_overlaps_of_conv_transpose2d_are_added_plainly(module):
    # The same numbers meet in one place of the output, where fold adds them without limbs.
    x, weight = tensor([[[[1.0, 1.0]]]]), tensor([[[[2.0**-60, 1.0]]]])
    assert module.tqx_conv_transpose2d(x, weight).tolist() == [[[[2.0**-60, 1.0, 1.0]]]]


# ---- sizes ----


@pytest.mark.parametrize(
    "size, kernel, stride, padding, expected",
    [(5, 3, 1, 1, 5), (5, 3, 2, 0, 2), (6, 3, 2, 0, 2), (5, 3, 1, -1, 3), (3, 3, 1, 0, 1)],
)
def test_size_of_conv2d(module, size, kernel, stride, padding, expected):
    x, weight = whole(1, 1, 1, size, size), whole(2, 1, 1, kernel, kernel)
    result = run(module.tqx_conv2d, x, weight, stride, padding)
    assert tuple(result.shape) == (1, 1, expected, expected)


def test_negative_padding_of_conv2d_means_none(module):
    x, weight = whole(1, 2, 3, 5, 5), whole(2, 2, 3, 3, 3)
    without = run(module.tqx_conv2d, x, weight)
    assert host_bits(run(module.tqx_conv2d, x, weight, padding=-1)) == host_bits(without)


def test_output_padding_adds_a_row_and_a_column_that_no_block_reaches(module):
    x, weight = torch.ones(1, 1, 3, 3), torch.ones(1, 1, 3, 3)
    result = run(module.tqx_conv_transpose2d, x, weight, 2, 0, 1)[0, 0]
    assert tuple(result.shape) == (8, 8)
    assert result[7].tolist() == [0.0] * 8 and result[:, 7].tolist() == [0.0] * 8
    assert bool((result[:7, :7] > 0).all())


def test_overlapping_positions_hold_the_sum_of_their_contributions(module):
    result = run(module.tqx_conv_transpose2d, torch.ones(1, 1, 3, 3), torch.ones(1, 1, 2, 2))
    assert result[0, 0].tolist() == [[1, 2, 2, 1], [2, 4, 4, 2], [2, 4, 4, 2], [1, 2, 2, 1]]


@pytest.mark.parametrize("asked", [True, 1, "text"])
@pytest.mark.parametrize("name", ["tqx_conv2d", "tqx_conv_transpose2d"])
def test_return_tqx_has_no_effect(module, name, asked):
    x, weight = normal(1, 2, 2, 4, 4), normal(2, 2, 2, 3, 3)
    function = getattr(module, name)
    result = run(function, x, weight, return_tqx=asked)
    assert isinstance(result, torch.Tensor)
    assert host_bits(result) == host_bits(run(function, x, weight))


def test_operands_are_widened_and_stay_as_they_were(module):
    x = torch.tensor([[[[1, 2], [3, 4]]]], device="cuda")
    weight = torch.tensor([[[[0.1]]]], device="cuda", dtype=torch.float32)
    before = x.clone(), weight.clone()
    for function in (module.tqx_conv2d, module.tqx_conv_transpose2d):
        result = function(x, weight, 1)
        assert result.dtype == torch.float64
        assert result.flatten().tolist() == [weight.item() * i for i in (1, 2, 3, 4)]
    assert torch.equal(x, before[0]) and torch.equal(weight, before[1])


# ---- batches without members ----


def test_batch_of_no_members_makes_no_product_and_no_cuda_test(module, launches):
    x, weight = torch.ones(0, 3, 5, 5), torch.ones(4, 3, 3, 3)
    assert tuple(module.tqx_conv2d(x, weight).shape) == (0, 4, 3, 3)
    assert tuple(run(module.tqx_conv2d, x, weight, 1, 1).shape) == (0, 4, 5, 5)
    assert launches == []


def test_transposed_batch_of_no_members_is_refused_by_view(module, launches):
    """-1 stands for any size in a view of nothing, and torch does not choose."""
    with pytest.raises(RuntimeError, match="the unspecified dimension size -1"):
        module.tqx_conv_transpose2d(torch.ones(0, 3, 5, 5), torch.ones(3, 4, 3, 3))
    assert launches == []


# ---- failures ----


@pytest.mark.parametrize("name", ["tqx_conv2d", "tqx_conv_transpose2d"])
def test_weight_on_the_host_meets_the_cuda_test_of_the_product(module, launches, name):
    with pytest.raises(RuntimeError) as caught:
        getattr(module, name)(device.to_device(torch.ones(1, 1, 2, 2)), torch.ones(1, 1, 1, 1))
    assert str(caught.value) == NOT_CUDA and launches == []


@pytest.mark.parametrize("name", ["tqx_conv2d", "tqx_conv_transpose2d"])
def test_x_on_the_host_is_first_refused_where_the_kernel_gets_it(module, launches, name):
    with pytest.raises(Exception) as caught:
        getattr(module, name)(torch.ones(1, 1, 2, 2), device.to_device(torch.ones(1, 1, 1, 1)))
    assert str(caught.value) != NOT_CUDA and launches == []


def test_channels_of_conv2d_that_differ_are_refused_by_the_product(module):
    with pytest.raises(AssertionError) as caught:
        run(module.tqx_conv2d, torch.ones(1, 2, 3, 3), torch.ones(1, 3, 2, 2))
    assert str(caught.value) == "Inner dimensions must match: 12 vs 8"


def test_count_of_input_channels_decides_about_the_view_of_the_transposed_weight(module):
    """Four rows viewed as two are twice as long, and the product does not fit its place."""
    with pytest.raises(RuntimeError, match="size"):
        run(module.tqx_conv_transpose2d, torch.ones(1, 2, 3, 3), torch.ones(4, 1, 2, 2))
    with pytest.raises(RuntimeError, match="invalid for input of size"):
        run(module.tqx_conv_transpose2d, torch.ones(1, 2, 3, 3), torch.ones(3, 1, 1, 1))


def test_stride_of_zero_is_a_division_by_zero_or_refused_by_fold(module):
    x, weight = torch.ones(1, 1, 3, 3), torch.ones(1, 1, 2, 2)
    with pytest.raises(ZeroDivisionError):
        run(module.tqx_conv2d, x, weight, 0)
    with pytest.raises(RuntimeError, match="stride should be greater than zero"):
        run(module.tqx_conv_transpose2d, x, weight, 0)


def test_layout_that_view_cannot_serve_is_refused_by_torch(module):
    x, weight = torch.ones(1, 2, 3, 4), torch.ones(2, 2, 2, 3)
    crossed_x = device.to_device(x.contiguous()).transpose(2, 3)
    crossed = device.to_device(weight).transpose(2, 3)
    assert module.tqx_conv2d(crossed_x, device.to_device(weight)).shape == (1, 2, 3, 1)
    for function, operands in [
        (module.tqx_conv2d, (device.to_device(x), crossed)),
        (module.tqx_conv_transpose2d, (device.to_device(x), crossed)),
        (module.tqx_conv_transpose2d, (crossed_x, device.to_device(weight))),
    ]:
        with pytest.raises(RuntimeError, match="view size is not compatible"):
            function(*operands)


@pytest.mark.parametrize("output_padding", [2, 3])
def test_output_padding_of_a_stride_or_more_is_refused_by_fold(module, output_padding):
    x, weight = torch.ones(1, 1, 3, 3), torch.ones(1, 1, 2, 2)
    with pytest.raises(RuntimeError, match="calculated number of sliding blocks"):
        run(module.tqx_conv_transpose2d, x, weight, 2, 0, output_padding)
