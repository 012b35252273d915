# SPDX-License-Identifier: Apache-2.0
"""The known limits that docs/numerics.md and docs/provenance.md state, each run as stated."""

import math
import re
from decimal import Decimal
from fractions import Fraction
from pathlib import Path

import pytest
import torch

DOCS = Path(__file__).resolve().parents[2] / "docs"
MAX = (2.0 - 2.0**-52) * 2.0**1023
INF = math.inf
SHORT_DIGITS = 16


def limits_of(page):
    """The section "Known limits" of a page, its items by their bold beginnings."""
    text = (DOCS / page).read_text()
    [section] = re.findall(r"^## Known limits\n(.*?)^## ", text + "\n## ", re.MULTILINE | re.DOTALL)
    items = re.findall(
        r"^- \*\*(.*?)\*\*(.*?)(?=^- \*\*|\Z|\n\n)", section, re.MULTILINE | re.DOTALL
    )
    return {" ".join(head.split()): " ".join((head + rest).split()) for head, rest in items}


def states(page, head, *sentences):
    """The page says this, so that what is run below is what a reader finds."""
    text = next(text for found, text in limits_of(page).items() if found.startswith(head))
    assert [sentence for sentence in sentences if sentence not in text] == []


@pytest.fixture
def tensor():
    return lambda values, dtype=torch.float64: torch.tensor(values, device="cuda", dtype=dtype)


def limbs_of(result):
    return [limb.item() for limb in result.limbs]


# ---- docs/numerics.md ----


def test_collapse_near_a_midpoint_is_one_ulp_high(module, tensor):
    states("numerics.md", "Collapse.", "1 + 2^-52 + 2^-53 - 2^-200 comes out one ulp high")
    values = [1.0, 2.0**-52, 2.0**-53, -(2.0**-200)]
    nearest = float(sum(map(Fraction, values)))
    assert nearest == 1 + 2.0**-52
    assert module.tqx_sum(tensor(values)).item() == math.nextafter(nearest, 2)


OVERFLOWING = {"[MAX, 2**970]": [MAX, 2.0**970], "[MAX, MAX]": [MAX, MAX]}


@pytest.mark.parametrize("text", OVERFLOWING)
def test_sum_that_rounds_to_infinity_collapses_to_nan(module, tensor, text):
    states("numerics.md", "Collapse where", text, "the limbs of both are the two addends and exact")
    values = OVERFLOWING[text]
    result = module.tqx_sum(tensor(values), return_tqx=True)
    assert limbs_of(result) == [*values, 0.0, 0.0]
    assert math.isnan(result.collapse().item())
    assert math.isnan(module.tqx_sum(tensor(values)).item())
    assert math.isnan(module.tqx_mean(tensor(values)).item())
    assert module.tqx_sum(tensor(values), exact=False).item() == INF
    assert module.tqx_sum_exact(tensor(values)) == sum(map(Decimal, values))


def test_sum_just_below_is_the_largest_double(module, tensor):
    states("numerics.md", "Collapse where", "of `[MAX, 2**969]` it is MAX")
    assert module.tqx_sum(tensor([MAX, 2.0**969])).item() == MAX


def test_infinite_first_limb_collapses_to_nan(module, tensor):
    states(
        "numerics.md", "Collapse where", "`[inf, 1.0]` has the first limb inf, and collapses to NaN"
    )
    result = module.tqx_sum(tensor([INF, 1.0]), return_tqx=True)
    assert limbs_of(result) == [INF, 0.0, 0.0, 0.0]
    assert math.isnan(result.collapse().item())


def test_products_that_overflow_collapse_to_nan(module, tensor):
    states("numerics.md", "Collapse where", "So do `tqx_dot`, `tqx_matmul` and `tqx_mean`")
    root = tensor([2.0**512])
    assert limbs_of(module.tqx_dot(root, root, return_tqx=True)) == [MAX, 2.0**971, 0.0, 0.0]
    assert math.isnan(module.tqx_dot(root, root).item())
    assert math.isnan(module.tqx_matmul(root.reshape(1, 1), root.reshape(1, 1)).item())


def test_integers_are_rounded_to_float64_first(module, tensor):
    head = "Integers and other dtypes are converted"
    states(
        "numerics.md", head, "`[2**53 + 1]` is 9007199254740992", "of `[2**53 + 1, -2**53]` it is 0"
    )
    assert module.tqx_sum_exact(tensor([2**53 + 1], torch.int64)) == 9007199254740992
    assert module.tqx_sum_exact(tensor([2**53 + 1, -(2**53)], torch.int64)) == 0
    assert tensor([2**53 + 1, -(2**53)], torch.int64).sum().item() == 1  # torch adds integers


@pytest.mark.usefixtures("every_warning")
def test_other_dtypes_keep_their_values_but_complex_ones(module, tensor):
    states(
        "numerics.md", "Integers and other", "float32, float16 and bfloat16 keep", "imaginary part"
    )
    for dtype in (torch.float32, torch.float16, torch.bfloat16):
        x = tensor([0.1, 0.25, 3.0], dtype)
        assert module.tqx_sum_exact(x) == sum(map(Decimal, x.cpu().double().tolist()))
    with pytest.warns(UserWarning, match="discards the imaginary part"):
        assert module.tqx_sum(tensor([1 + 2j, 3 + 4j], torch.complex128)).item() == 4.0


def test_fifth_limb_is_rounded_away(module, tensor):
    states("numerics.md", "Four limbs.", "2^900 + 2^600 + 2^300 + 1 + 2^-300 needs five")
    values = [2.0**900, 2.0**600, 2.0**300, 1.0, 2.0**-300]
    assert limbs_of(module.tqx_sum(tensor(values), return_tqx=True)) == values[:4]


# ---- docs/provenance.md ----


def test_lower_limbs_are_not_in_a_checksum(module, tensor):
    states("provenance.md", "Lower limbs", "differ in their lower limbs only have one checksum")
    one, other = (
        module.tqx_sum(tensor([1.0, rest]), return_tqx=True) for rest in (2.0**-60, 2.0**-61)
    )
    assert limbs_of(one) != limbs_of(other)
    assert module.tqx_checksum_hex(one) == module.tqx_checksum_hex(other)


def test_shape_and_dtype_are_not_in_a_checksum(module, tensor):
    states(
        "provenance.md", "Shapes", "one checksum in any shape", "Integers beyond 2^53 are rounded"
    )
    x = tensor([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]])
    expected = module.tqx_checksum_hex(x)
    for other in (x.reshape(3, 2), x.flatten(), x.reshape(1, 6, 1), x.float(), x.int()):
        assert module.tqx_checksum_hex(other) == expected
    large = (tensor([2**53], torch.int64), tensor([2**53 + 1], torch.int64))
    assert module.tqx_checksum_hex(large[0]) == module.tqx_checksum_hex(large[1])


def test_only_the_first_digits_are_compared(module, tensor):
    states(
        "provenance.md", "Only the first digits", "also where it is given all 64", "compares all"
    )
    x = tensor([1.0])
    full = module.tqx_checksum_hex(x)
    forged = full[:SHORT_DIGITS] + "0" * (64 - SHORT_DIGITS)
    assert forged != full
    assert module.tqx_verify(x, forged) is True
    assert module.TQXVerifiedResult(x, forged).verify() is True
    assert module.tqx_verify(x, forged, truncate=64, raise_on_mismatch=False) is False
    wrong = ("1" if full[0] == "0" else "0") + full[1:]
    assert module.tqx_verify(x, wrong, raise_on_mismatch=False) is False


def test_truncation_to_nothing_accepts_every_text(module, tensor):
    states(
        "provenance.md", "`truncate=0`", "every expected text is accepted", "`truncate=-64` or less"
    )
    x = tensor([1.0])
    assert all(module.tqx_verify(x, text, truncate=0) for text in ("", "anything", "0" * 64))
    for truncate in (-64, -100):
        assert module.tqx_verify(x, "0" * 64, truncate=truncate) is True
    assert module.tqx_verify(x, "0" * 65, truncate=-64, raise_on_mismatch=False) is False


# ---- docs/emulation.md ----


def test_division_by_three_differs_as_often_as_the_page_says(module, tensor):
    text = " ".join((DOCS / "emulation.md").read_text().split())
    numbers = [float(number) for number in range(1, 1001)]
    quotients = (tensor(numbers) / 3).tolist()
    different = sum(q != number / 3 for q, number in zip(quotients, numbers, strict=True))
    assert f"1 to 1000 divided by 3, {different} come out different" in text


# ---- the sections themselves ----


@pytest.mark.parametrize("page, count", [("numerics.md", 10), ("provenance.md", 5)])
def test_sections_are_found_whole(page, count):
    assert len(limits_of(page)) == count


def test_a_missing_sentence_is_noticed():
    with pytest.raises(AssertionError):
        states("provenance.md", "`truncate=0`", "no expected text is accepted")
