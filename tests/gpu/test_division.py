# SPDX-License-Identifier: Apache-2.0
"""torch's division by a number on a GPU is what the rule of the emulated device says."""

import gpu_cases
import pytest
import torch

from korvex.emulation import _reciprocals

pytestmark = [
    pytest.mark.gpu,
    pytest.mark.skipif(not gpu_cases.is_on_gpu(), reason="needs a CUDA device"),
]

DIVISORS = [3, 7, 10, 1000, 0.1, 1e-3, 3.0, -9.7, 1e300, 1e-300, 5e-324, 2.0**-1030, 2**53 + 1]
DTYPES = [torch.float64, torch.float32, torch.float16, torch.bfloat16, torch.int64]


def same_bits(a: torch.Tensor, b: torch.Tensor) -> torch.Tensor:
    """Of each element; all NaNs count as equal."""
    if a.is_complex():
        a, b = torch.view_as_real(a), torch.view_as_real(b)
    both_nan = torch.isnan(a) & torch.isnan(b)
    return both_nan | ((a == b) & (torch.signbit(a) == torch.signbit(b)))


@pytest.mark.parametrize(
    "divisor", [*DIVISORS, torch.tensor(3.7, dtype=torch.float64), 1 + 2j], ids=str
)
@pytest.mark.parametrize("dtype", DTYPES, ids=str)
def test_division_by_a_number(dtype, divisor):
    if isinstance(divisor, complex) and dtype.itemsize == 2:
        pytest.skip("the emulated device has no rule for complex halves")
    generator = torch.Generator().manual_seed(gpu_cases.SEED)
    values = torch.randn(100_000, dtype=torch.float64, generator=generator) * 1000
    values = values.to(dtype)
    by_rule = _reciprocals.quotient(values, divisor)
    actual = (values.cuda() / divisor).cpu()
    assert actual.dtype == by_rule.dtype
    assert int((~same_bits(actual, by_rule)).sum()) == 0
