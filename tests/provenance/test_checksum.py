# SPDX-License-Identifier: Apache-2.0
"""Checksums of tensors and limb results, and their verification."""

import hashlib
import math
import struct
import sys

import device
import numpy
import pytest
import torch
from hypothesis import given
from hypothesis import strategies as st

from korvex_tools.references.exact_arithmetic import from_bits

ONE_FULL = "6c3c396ed6b5c36dcae172271f462051b1266b851e92df3deea8ac65478fd712"
ONE = torch.tensor([1.0], dtype=torch.float64)


def host(values):
    return torch.tensor(values, dtype=torch.float64)


def hash_of(*values):
    return hashlib.sha256(struct.pack(f"<{len(values)}d", *values)).hexdigest()


# ---- the text ----


def test_check_value(runtime):
    assert runtime.tqx_checksum(ONE) == "6c3c396ed6b5c36d"
    assert runtime.tqx_checksum_hex(ONE) == ONE_FULL


KNOWN = [
    ("empty", host([]), "e3b0c44298fc1c14"),
    ("zero", host([0.0]), "af5570f5a1810b7a"),
    ("minus zero", host([-0.0]), "e6ad6c9a3a3b7658"),
    ("scalar one", host(1.0), "6c3c396ed6b5c36d"),
]


@pytest.mark.parametrize("x, expected", [row[1:] for row in KNOWN], ids=[row[0] for row in KNOWN])
def test_known_texts(runtime, x, expected):
    assert runtime.tqx_checksum(x) == expected


def test_host_and_device_agree(runtime):
    x = host([[1.0, -0.0, 2.5], [math.inf, 2.0**-1074, 3.0]])
    assert runtime.tqx_checksum_hex(device.to_device(x)) == runtime.tqx_checksum_hex(x)


def test_bytes_are_the_stored_doubles_in_row_major_order(runtime):
    x = host([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]])
    assert runtime.tqx_checksum_hex(x) == hash_of(1, 2, 3, 4, 5, 6)
    assert runtime.tqx_checksum_hex(x.t()) == hash_of(1, 4, 2, 5, 3, 6)


def test_shape_is_not_part_of_it(runtime):
    x = host([1.0, 2.0, 3.0, 4.0, 5.0, 6.0])
    texts = {runtime.tqx_checksum_hex(x.view(shape)) for shape in [(6,), (2, 3), (3, 2), (1, 6)]}
    assert len(texts) == 1
    assert runtime.tqx_checksum_hex(host(7.0)) == runtime.tqx_checksum_hex(host([7.0]))


def test_transposed_view_hashes_its_logical_order(runtime):
    x = host([[1.0, 2.0], [3.0, 4.0]])
    assert runtime.tqx_checksum(x.t()) != runtime.tqx_checksum(x)
    symmetric = host([[1.0, 2.0], [2.0, 4.0]])
    assert runtime.tqx_checksum(symmetric.t()) == runtime.tqx_checksum(symmetric)


def test_view_has_the_checksum_of_its_contiguous_copy(runtime):
    base = host([[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]])
    for view in (base.t(), base[:, ::2], base[1], base[:, 1], base[0].expand(4, 3), base.flip(0)):
        assert runtime.tqx_checksum(view) == runtime.tqx_checksum(view.contiguous())


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.int32, torch.bool])
def test_dtype_is_not_part_of_it(runtime, dtype):
    x = torch.tensor([0, 1, 1], dtype=dtype)
    assert runtime.tqx_checksum_hex(x) == hash_of(0.0, 1.0, 1.0)


def test_float32_has_the_checksum_of_the_doubles_it_holds(runtime):
    x = torch.tensor([0.1, 0.2], dtype=torch.float32)
    assert runtime.tqx_checksum(x) == runtime.tqx_checksum(x.double())
    assert runtime.tqx_checksum(x) != runtime.tqx_checksum(host([0.1, 0.2]))


def test_nan_payloads_are_hashed_as_stored(runtime):
    patterns = numpy.array([0x7FF8000000000000, 0xFFF8000000000123], dtype=numpy.uint64)
    x = torch.from_numpy(patterns.view(numpy.float64))
    assert runtime.tqx_checksum_hex(x) == hashlib.sha256(patterns.tobytes()).hexdigest()


@given(st.lists(st.integers(0, 2**64 - 1), max_size=20))
def test_any_bits_are_hashed_as_stored(module, patterns):
    stored = numpy.array(patterns, dtype=numpy.uint64)
    x = torch.from_numpy(stored.view(numpy.float64))
    assert module.tqx_checksum_hex(x) == hashlib.sha256(stored.tobytes()).hexdigest()


def test_limb_result_has_the_checksum_of_its_collapse(runtime):
    limbs = [host([1.0, 2.0]), host([2.0**-60, 0.5])]
    result = runtime.TQXResult(limbs)
    assert runtime.tqx_checksum(result) == runtime.tqx_checksum(result.collapse())
    assert runtime.tqx_checksum_hex(result) == hash_of(1.0, 2.5)


def test_limb_results_that_collapse_alike_have_one_checksum(runtime):
    first = runtime.TQXResult([host([1.0]), host([2.0**-60])])
    second = runtime.TQXResult([host([1.0]), host([2.0**-70]), host([0.0])])
    assert runtime.tqx_checksum_hex(first) == runtime.tqx_checksum_hex(second)


def test_empty_limb_result_hashes_a_zero(runtime):
    assert runtime.tqx_checksum(runtime.TQXResult([])) == "af5570f5a1810b7a"


def test_limb_result_on_the_device(module, launches):
    result = module.tqx_sum(device.tensor([1.0, 2.0**-60]), return_tqx=True)
    assert module.tqx_checksum(result) == "6c3c396ed6b5c36d"
    assert launches == ["tqx_sum_seq_kernel"]


def test_subclass_is_collapsed_its_own_way(runtime):
    class Subclass(runtime.TQXResult):
        def collapse(self):
            return ONE

    assert runtime.tqx_checksum_hex(Subclass([])) == ONE_FULL


# ---- truncation ----


@pytest.mark.parametrize("truncate", [16, 1, 2, 63, 64, 65, 100, 2**62, 2**63, 10**30])
def test_that_many_first_characters(runtime, truncate):
    assert runtime.tqx_checksum(ONE, truncate) == ONE_FULL[: min(truncate, 64)]


@pytest.mark.parametrize("truncate", [0, -1, -2, -16, -63, -64, -65, -1000, -(2**63), -(10**30)])
def test_zero_and_negative_truncation_slice_from_the_end(runtime, truncate):
    expected = ONE_FULL[:truncate] if truncate > -64 else ""
    assert runtime.tqx_checksum(ONE, truncate) == expected


@pytest.mark.parametrize("truncate, expected", [(16.9, 16), (True, 1), (False, 0), (-1.9, -1)])
def test_truncation_that_is_another_number(runtime, truncate, expected):
    assert runtime.tqx_checksum(ONE, truncate) == ONE_FULL[:expected]


def test_full_text_has_no_truncation_parameter(runtime):
    with pytest.raises(TypeError):
        runtime.tqx_checksum_hex(ONE, 16)


def test_text_is_an_exact_str(runtime):
    assert type(runtime.tqx_checksum(ONE)) is str
    assert type(runtime.tqx_checksum_hex(ONE)) is str


# ---- failures ----


@pytest.mark.parametrize("x", [1.0, "text", None, [1.0], 3])
def test_operand_without_double_fails_at_it(runtime, x):
    for call in (runtime.tqx_checksum, runtime.tqx_checksum_hex):
        with pytest.raises(AttributeError, match="double"):
            call(x)
    with pytest.raises(AttributeError, match="double"):
        runtime.tqx_verify(x, "text")


def test_tensor_that_requires_grad_fails_as_torch_fails(runtime):
    x = torch.ones(2, dtype=torch.float64, requires_grad=True)
    with pytest.raises(RuntimeError, match="requires grad"):
        runtime.tqx_checksum(x)
    assert runtime.tqx_checksum(x.detach()) == runtime.tqx_checksum(host([1.0, 1.0]))


# ---- verification ----


def test_verification_against_both_forms(runtime):
    for x in (ONE, runtime.TQXResult([ONE]), host([])):
        assert runtime.tqx_verify(x, runtime.tqx_checksum(x)) is True
        assert runtime.tqx_verify(x, runtime.tqx_checksum_hex(x)) is True


def test_full_expected_text_is_compared_on_its_first_characters(runtime):
    assert runtime.tqx_verify(ONE, ONE_FULL[:16] + "no hash at all") is True
    assert runtime.tqx_verify(ONE, ONE_FULL[:16] + "0" * 48, 17, False) is False


def test_mismatch_raises_four_lines(runtime):
    with pytest.raises(ValueError) as caught:
        runtime.tqx_verify(ONE, "0123456789abcdefXXXX")
    assert caught.value.args == (
        "TQX checksum mismatch!\n"
        "  Got:      6c3c396ed6b5c36d\n"
        "  Expected: 0123456789abcdef\n"
        "  This indicates non-reproducible computation.",
    )


def test_mismatch_without_raising(runtime):
    assert runtime.tqx_verify(ONE, "x", raise_on_mismatch=False) is False


def test_upper_case_never_matches(runtime):
    assert runtime.tqx_verify(ONE, ONE_FULL.upper(), 16, False) is False


def test_short_expected_text_is_no_prefix(runtime):
    assert runtime.tqx_verify(ONE, ONE_FULL[:15], 16, False) is False
    assert runtime.tqx_verify(ONE, "", 16, False) is False
    with pytest.raises(ValueError, match="TQX checksum mismatch!"):
        runtime.tqx_verify(ONE, "")
    assert runtime.tqx_verify(ONE, ONE_FULL[:15], 15) is True


@pytest.mark.parametrize("expected", ["", "anything", "ä" * 100])
def test_truncation_to_nothing_matches_anything(runtime, expected):
    assert runtime.tqx_verify(ONE, expected, truncate=0) is True


def test_negative_truncation_cuts_both_sides(runtime):
    assert runtime.tqx_verify(ONE, ONE_FULL, truncate=-1) is True
    assert runtime.tqx_verify(ONE, ONE_FULL[:16], -1, False) is False
    with pytest.raises(ValueError) as caught:
        runtime.tqx_verify(ONE, ONE_FULL[:16], truncate=-1)
    lines = str(caught.value).splitlines()
    assert lines[1] == "  Got:      " + ONE_FULL[:63]
    assert lines[2] == "  Expected: " + ONE_FULL[:15]


def test_truncation_beyond_64_caps_one_side_only(runtime):
    assert runtime.tqx_verify(ONE, ONE_FULL, truncate=100) is True
    assert runtime.tqx_verify(ONE, ONE_FULL + "0", 100, False) is False
    assert runtime.tqx_verify(ONE, ONE_FULL + "0", 64) is True


def test_truncation_beyond_a_machine_word(runtime):
    assert runtime.tqx_verify(ONE, ONE_FULL, truncate=sys.maxsize) is True
    for truncate in (sys.maxsize + 1, 10**30):
        with pytest.raises(OverflowError):
            runtime.tqx_verify(ONE, ONE_FULL, truncate=truncate)


def test_overflow_comes_after_the_hash(runtime):
    with pytest.raises(AttributeError, match="double"):
        runtime.tqx_verify(None, ONE_FULL, truncate=10**30)


def test_mismatch_shows_text_that_is_not_ascii(runtime):
    with pytest.raises(ValueError, match="Expected: größe"):
        runtime.tqx_verify(ONE, "größe")


# ---- the order of the calls; tests/runtime compares every other with the reference ----


def test_checksum_of_limbs_is_that_of_their_collapse(runtime, recorded):
    recorder = recorded(
        """
        tensor = collapse()
        tensor.double
        t1 = tensor.double()
        t1.cpu
        t2 = t1.cpu()
        t2.contiguous
        tensor_f64 = t2.contiguous()
        tensor_f64.numpy
        array = tensor_f64.numpy()
        array.tobytes
        data_bytes = array.tobytes()
        hashlib.sha256
        hasher = hashlib.sha256(data_bytes)
        hasher.hexdigest
        full_hash = hasher.hexdigest()
        text = full_hash[:64]
        """,
        "hashlib",
    )
    result = runtime.TQXResult([])
    recorder.events.clear()  # the dtype that the construction reads
    result.collapse = recorder.spy("collapse")
    assert repr(runtime.tqx_checksum(result, 65)) == "<text>"
    recorder.check()


def test_no_kernel_is_launched(module, launches):
    x = device.tensor([1.0])
    module.tqx_verify(x, module.tqx_checksum_hex(x))
    assert launches == []


def test_constants_of_this_file_are_hashes():
    assert hash_of(1.0) == ONE_FULL and from_bits(0x3FF0000000000000) == 1.0
