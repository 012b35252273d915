# SPDX-License-Identifier: Apache-2.0
"""tqx_sum and tqx_mean on the device under test: paths, shapes, types and failures."""

import math

import device
import pytest
import torch
from device import tensor

from korvex_tools.references.exact_arithmetic import NAN_BITS, bits, sum_limbs

INF, NAN = math.inf, math.nan
SEQUENTIAL, PARALLEL = ["tqx_sum_seq_kernel"], ["tqx_sum_kernel"]


def limb_bits(result):
    return [bits(limb.item()) for limb in result.limbs]


def all_bits(values):
    return [bits(value) for value in values]


# ---- paths ----


def test_default_path_collapses_four_limbs(module, launches):
    total = module.tqx_sum(tensor([[1.0, 2.0], [3.0, 2.0**-60]]))
    assert total.shape == () and total.dtype is torch.float64 and total.is_cuda
    assert total.item() == 6.0 and launches == SEQUENTIAL


def test_default_path_with_limbs(module, launches):
    x = tensor([1.0, 2.0**-60, 2.0**-120])
    result = module.tqx_sum(x, return_tqx=True)
    assert type(result) is module.TQXResult and result.n_limbs == 4
    assert result.device == str(x.device) == "cuda:0" and result.shape == ()
    assert [limb.item() for limb in result.limbs] == [1.0, 2.0**-60, 2.0**-120, 0.0]
    assert {str(limb.device) for limb in result.limbs} == {"cuda:0"}
    assert launches == SEQUENTIAL


def test_limbs_are_views_of_one_buffer_in_index_order(module):
    limbs = module.tqx_sum(tensor([1.0]), return_tqx=True).limbs
    assert [limb.data_ptr() - limbs[0].data_ptr() for limb in limbs] == [0, 8, 16, 24]
    assert {limb.dim() for limb in limbs} == {0}


def test_parallel_path(module, launches):
    total = module.tqx_sum(tensor([[1.0, 2.0], [3.0, 2.0**-60]]), exact=False)
    assert total.shape == () and total.dtype is torch.float64 and total.is_cuda
    assert total.item() == 6.0 and launches == PARALLEL


def test_parallel_path_has_two_limbs(module, launches):
    result = module.tqx_sum(tensor([1.0, 2.0**-60]), exact=False, return_tqx=True)
    assert type(result) is module.TQXResult and result.n_limbs == 2
    assert result.device == "cuda:0" and result.shape == ()
    assert [limb.item() for limb in result.limbs] == [1.0, 2.0**-60]
    assert launches == PARALLEL


def test_sum_along_a_dimension_is_a_plain_tensor(module, launches):
    x = tensor([[1.0, 2.0], [3.0, 4.0]])
    total = module.tqx_sum(x, dim=0, return_tqx=True)
    assert isinstance(total, torch.Tensor) and total.tolist() == [4.0, 6.0]
    assert total.dtype is torch.float64 and launches == []


@pytest.mark.parametrize("keepdim, shape", [(False, (2,)), (True, (2, 1)), ("yes", (2, 1))])
def test_keepdim_along_a_dimension(module, keepdim, shape):
    x = tensor([[1.0, 2.0], [3.0, 4.0]])
    assert module.tqx_sum(x, 1, keepdim).shape == shape
    assert module.tqx_mean(x, 1, keepdim).shape == shape


def test_sum_along_a_dimension_is_torchs_to_the_bit(module):
    x = tensor([[math.sin(i + j) * 10.0 ** (i - j) for j in range(9)] for i in range(9)])
    for dim in (0, 1, -1):
        assert torch.equal(module.tqx_sum(x, dim=dim), x.sum(dim=dim))


@pytest.mark.parametrize("options", [{}, {"exact": False}])
def test_keepdim_without_a_dimension_has_no_effect(module, options):
    x = tensor([[1.0, 2.0], [3.0, 4.0]])
    assert module.tqx_sum(x, keepdim=True, **options).shape == ()
    assert module.tqx_mean(x, keepdim=True).shape == ()


def test_dimension_is_converted_to_an_int(module):
    x = tensor([[1.0, 2.0], [3.0, 4.0]])
    assert module.tqx_sum(x, 1.9).tolist() == module.tqx_sum(x, True).tolist() == [3.0, 7.0]
    assert module.tqx_sum(x, -1).tolist() == [3.0, 7.0]


# ---- operands ----


@pytest.mark.parametrize("options", [{}, {"exact": False}, {"dim": 0}])
@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.int64, torch.uint8])
def test_operand_is_widened_before_anything_is_added(module, options, dtype):
    values = [200, 100, 1, 0]  # wraps in uint8, rounds in float16
    total = module.tqx_sum(tensor(values, dtype), **options)
    assert total.dtype is torch.float64 and total.item() == 301.0


def test_float32_operand_is_summed_as_the_doubles_it_holds(module):
    x = tensor([0.1, 0.2, 1e8], torch.float32)
    expected = sum_limbs(x.double().cpu().tolist(), 4)
    assert limb_bits(module.tqx_sum(x, return_tqx=True)) == all_bits(expected)


def test_boolean_operand_is_counted(module):
    assert module.tqx_sum(tensor([True, False, True], torch.bool)).item() == 2.0


def test_operand_of_any_shape_and_stride(module):
    base = tensor([[[1.0, 2.0], [3.0, 4.0]], [[5.0, 6.0], [7.0, 8.0]]])
    for x in (base, base.permute(2, 0, 1), base[:, ::2], base[..., 1], base[0, 0].expand(3, 2)):
        assert module.tqx_sum(x).item() == sum(x.cpu().flatten().tolist())
        assert module.tqx_sum(x, exact=False).item() == sum(x.cpu().flatten().tolist())
    assert module.tqx_sum(tensor(2.5)).item() == 2.5


def test_operand_is_not_written_to(module):
    x = tensor([3.0, 1.0, 2.0])
    before = x.clone()
    for options in ({}, {"exact": False}, {"return_tqx": True}, {"dim": 0}):
        module.tqx_sum(x, **options)
        module.tqx_mean(x, dim=options.get("dim"))
    assert torch.equal(x, before)


def test_results_do_not_share_memory_between_calls(module):
    x = tensor([1.0])
    first = module.tqx_sum(x, return_tqx=True)
    module.tqx_sum(tensor([5.0]), return_tqx=True)
    assert first.limbs[0].item() == 1.0


# ---- empty operands ----


def test_empty_operand_on_the_sequential_path_is_launched(module, launches):
    result = module.tqx_sum(tensor([]), return_tqx=True)
    assert limb_bits(result) == [0, 0, 0, 0] and launches == SEQUENTIAL
    assert bits(module.tqx_sum(tensor([])).item()) == 0


def test_empty_operand_on_the_parallel_path_is_launched_with_an_empty_grid(module, monkeypatch):
    grids = []

    class Loader(device.CountingLoader):
        def get_kernel(self, name):
            kernel = super().get_kernel(name)
            inner = kernel.launch

            def launch(*args, grid):
                grids.append(grid)
                return inner(*args, grid=grid)

            kernel.launch = launch
            return kernel

    monkeypatch.setattr(module, "_NATIVE_LOADER", Loader(module._NATIVE_LOADER))
    result = module.tqx_sum(tensor([]), exact=False, return_tqx=True)
    assert grids == [(0, 1, 1)] and limb_bits(result) == [0, 0]


@pytest.mark.parametrize("shape", [(0,), (0, 3), (2, 0, 4)])
def test_empty_operand_of_any_shape(module, shape):
    x = torch.zeros(shape, dtype=torch.float64, device="cuda")
    assert module.tqx_sum(x).item() == 0.0 and module.tqx_sum(x, exact=False).item() == 0.0


def test_mean_of_nothing_is_torchs_division_by_zero(module, launches):
    assert module.tqx_mean(tensor([])).isnan().item()
    result = module.tqx_mean(tensor([]), return_tqx=True)
    assert [limb.isnan().item() for limb in result.limbs] == [True] * 4
    assert launches == SEQUENTIAL * 2


def test_mean_along_an_empty_dimension(module):
    x = torch.zeros((2, 0), dtype=torch.float64, device="cuda")
    assert module.tqx_mean(x, dim=1).isnan().all().item()


# ---- sums whose limbs are known ----

KNOWN = [
    ("one element", [3.5], [3.5]),
    ("a lost bit", [1e16, 1.0], [1e16, 1.0]),
    ("a lost bit and back", [1e16, 1.0, -1e16], [1.0]),
    ("everything cancels", [1.5, -0.25, 2.0**-1074, -1.5, 0.25, -(2.0**-1074)], []),
    ("negative zeros", [-0.0, -0.0], []),
    ("six levels", [2.0 ** (53 * k) for k in range(3, -3, -1)], None),
    ("midway overflow", [2.0**1023, 2.0**1023, -(2.0**1023), -(2.0**1023), 2.0**-1074], None),
    ("largest and smallest", [2.0**1023, 2.0**-1074], [2.0**1023, 2.0**-1074]),
    ("tie up", [1.0, 2.0**-53, 2.0**-1074], [1.0 + 2.0**-52, -(2.0**-53), 2.0**-1074]),
    ("tie down", [1.0, 2.0**-53, -(2.0**-1074)], [1.0, 2.0**-53, -(2.0**-1074)]),
    ("tie to even", [1.0, 2.0**-53], [1.0, 2.0**-53]),
    ("tie to even, odd", [1.0 + 2.0**-52, 2.0**-53], [1.0 + 2.0**-51, -(2.0**-53)]),
    ("five limbs needed", [2.0**900, 2.0**600, 2.0**300, 1.0, 2.0**-300], None),
    ("beyond the largest", [1.7e308, 1.7e308], None),
    ("beyond four limbs", [1.7e308] * 5, [INF]),
    ("below minus four limbs", [-1.7e308] * 5, [-INF]),
    ("infinity", [1.0, INF, -1e308], [INF]),
    ("minus infinity", [1.0, -INF, -INF, 1e308], [-INF]),
    ("subnormals", [2.0**-1074] * 7, [7 * 2.0**-1074]),
]
by_known = pytest.mark.parametrize(
    "values, expected", [row[1:] for row in KNOWN], ids=[row[0] for row in KNOWN]
)


@by_known
def test_sequential_limbs_are_canonical(module, values, expected):
    limbs = sum_limbs(values, 4)
    if expected is not None:
        assert all_bits(limbs) == all_bits(expected + [0.0] * (4 - len(expected)))
    assert limb_bits(module.tqx_sum(tensor(values), return_tqx=True)) == all_bits(limbs)


@by_known
def test_parallel_limbs_are_canonical(module, values, expected):
    result = module.tqx_sum(tensor(values), exact=False, return_tqx=True)
    assert limb_bits(result) == all_bits(sum_limbs(values, 2))


@pytest.mark.parametrize(
    "values", [[NAN], [1.0, NAN, 2.0], [INF, -INF], [INF, 1.0, NAN], [-NAN, -INF]]
)
def test_nan_is_one_pattern(module, values):
    result = module.tqx_sum(tensor(values), return_tqx=True)
    assert limb_bits(result) == [NAN_BITS, 0, 0, 0]
    result = module.tqx_sum(tensor(values), exact=False, return_tqx=True)
    assert limb_bits(result) == [NAN_BITS, 0]


def test_collapse_of_an_infinite_sum_is_nan_and_the_parallel_sum_is_not(module):
    x = tensor([1.0, INF])
    assert module.tqx_sum(x).isnan().item()
    assert module.tqx_sum(x, exact=False).item() == INF


@pytest.mark.parametrize("n", [1, 2, 31, 32, 33, 255, 256, 257, 511, 512, 513, 1000, 4097])
def test_counts_around_the_block_size(module, n):
    values = [(-1.0) ** i * (i + 0.1) * 2.0 ** (i % 97 - 48) for i in range(n)]
    x = tensor(values)
    assert limb_bits(module.tqx_sum(x, return_tqx=True)) == all_bits(sum_limbs(values, 4))
    result = module.tqx_sum(x, exact=False, return_tqx=True)
    assert limb_bits(result) == all_bits(sum_limbs(values, 2))


def test_two_sums_in_a_row_leave_nothing_of_each_other(module):
    for values in ([1e300, 1.0], [2.0**-1074], [-3.0] * 300):
        result = module.tqx_sum(tensor(values), exact=False, return_tqx=True)
        assert limb_bits(result) == all_bits(sum_limbs(values, 2))


def test_long_sum_of_a_tenth(module):
    x = tensor([0.1] * 100_000)
    expected = sum_limbs([0.1] * 100_000, 4)
    assert limb_bits(module.tqx_sum(x, return_tqx=True)) == all_bits(expected)
    assert module.tqx_sum(x, exact=False).item() == expected[0]


# ---- mean ----


def test_mean_is_the_sum_divided_by_the_count(module, launches):
    x = tensor([[1.0, 2.0], [4.0, 5.0]])
    mean = module.tqx_mean(x)
    assert mean.shape == () and mean.dtype is torch.float64 and mean.is_cuda
    assert mean.item() == 3.0 and launches == SEQUENTIAL


def test_mean_divides_as_torch_does_on_the_device(module):
    for n in (3, 7, 49, 1000):
        x = tensor([0.1 * i for i in range(n)])
        assert torch.equal(module.tqx_mean(x), module.tqx_sum(x) / n)


def test_mean_limbs_are_the_sums_limbs_divided(module, launches):
    x = tensor([1.0, 2.0**-60, 1.0])
    result = module.tqx_mean(x, return_tqx=True)
    assert type(result) is module.TQXResult and result.n_limbs == 4
    assert result.device == "cuda:0" and result.shape == () and launches == SEQUENTIAL
    sum_limbs_of_x = module.tqx_sum(x, return_tqx=True).limbs
    for limb, sum_limb in zip(result.limbs, sum_limbs_of_x, strict=True):
        assert torch.equal(limb, sum_limb / 3)


def test_mean_along_a_dimension(module, launches):
    x = tensor([[1.0, 2.0, 6.0], [4.0, 5.0, 0.0]])
    mean = module.tqx_mean(x, dim=1, return_tqx=True)
    assert isinstance(mean, torch.Tensor) and mean.tolist() == [3.0, 3.0]
    assert launches == []


def test_mean_widens_integers(module):
    assert module.tqx_mean(tensor([1, 2], torch.int32)).item() == 1.5
    assert module.tqx_mean(tensor([[1, 2]], torch.uint8), dim=1).tolist() == [1.5]


# ---- failures ----

NOT_CUDA = r"^TQX requires CUDA tensor\. Move tensor to GPU with \.cuda\(\)$"


@pytest.mark.parametrize("options", [{}, {"dim": 99}, {"return_tqx": True}])
@pytest.mark.parametrize("name", ["tqx_sum", "tqx_mean"])
def test_host_operand_is_refused_before_anything_else(module, launches, name, options):
    with pytest.raises(RuntimeError, match=NOT_CUDA):
        getattr(module, name)(torch.zeros(3), **options)
    assert launches == []


def test_host_operand_of_the_exact_forms_is_refused_by_the_sum(module):
    for call in (module.tqx_sum_exact, module.tqx_mean_exact):
        with pytest.raises(RuntimeError, match=NOT_CUDA):
            call(torch.zeros(3))


def test_dimension_out_of_range(module):
    x = tensor([1.0])
    with pytest.raises(IndexError, match="Dimension out of range"):
        module.tqx_sum(x, dim=1)
    with pytest.raises(IndexError) as caught:
        module.tqx_mean(x, dim=1)
    assert str(caught.value) == "tuple index out of range"


@pytest.mark.parametrize("dim", [(0, 1), "0", [0]])
def test_several_dimensions_are_not_offered(module, dim):
    for call in (module.tqx_sum, module.tqx_mean):
        with pytest.raises(TypeError, match=r"Argument 'dim' has incorrect type \(expected int"):
            call(tensor([[1.0]]), dim=dim)


def test_limb_result_as_operand_fails_at_its_first_use(module):
    with pytest.raises(AttributeError, match="is_cuda"):
        module.tqx_sum(module.TQXResult([tensor(1.0)]))
    with pytest.raises(AttributeError, match="is_cuda"):
        module.tqx_mean(module.TQXResult([tensor(1.0)]))


@pytest.mark.parametrize("error", [ImportError("kernel"), RuntimeError("kernel"), MemoryError()])
@pytest.mark.parametrize("exact", [True, False])
def test_failure_of_the_loader_is_unchanged(module, monkeypatch, error, exact):
    class Loader:
        def get_kernel(self, name):
            raise error

    x = tensor([1.0])
    with monkeypatch.context() as patch:
        patch.setattr(module, "_NATIVE_LOADER", Loader())
        with pytest.raises(type(error)) as caught:
            module.tqx_sum(x, exact=exact)
    assert caught.value is error
    assert module.tqx_sum(x, exact=exact).item() == 1.0
