# SPDX-License-Identifier: Apache-2.0
"""Subclasses of int, float and tuple as arguments: what they hold counts, as in the loader's C.

An object whose comparisons or items are made up must not get past a check and reach memory.
"""

import enum
import re
from pathlib import Path

import device
import pytest
import torch

from korvex.emulation._signature import check_extent, items_of

pytestmark = pytest.mark.skipif(
    not device.choose().emulated, reason="kernel objects of the emulated device"
)

ONE = (1, 1, 1)
LOADER_MESSAGES = Path(__file__).resolve().parents[2] / "korvex/cubin_loader_native/messages.h"


class LyingInt(int):
    """Holds one number and answers every question as if it were the number 1."""

    def _as_one(name):
        return lambda self, *others: getattr(1, name)(*others)

    for _name in ("lt", "le", "gt", "ge", "eq", "mul", "rmul", "index", "int", "hash", "repr"):
        locals()[f"__{_name}__"] = _as_one(f"__{_name}__")


class LyingTuple(tuple):
    def __len__(self):
        return 3

    def __iter__(self):
        return iter(ONE)

    def __getitem__(self, index):
        return ONE[index]


class ClaimsToBeInt:
    __class__ = int


class ClaimsToBeTuple:
    __class__ = tuple


class Size(enum.IntEnum):
    FOUR = 4


@pytest.fixture
def kernel(module):
    return module._NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")


def arrays(module, count):
    x = torch.arange(float(count), dtype=torch.float64, device="cuda")
    out = torch.zeros(4, dtype=torch.float64, device="cuda")
    return out, (module.cp.from_dlpack(x), module.cp.from_dlpack(out))


def test_lying_size_is_checked_by_the_number_it_holds(module, kernel):
    out, operands = arrays(module, 1)
    for number, message in (
        (10**6, "'x' must have at least n = 1000000 elements, but has 1"),
        (-1, "'n' must be a size in 64 bits, not 1"),
        (2**64, "'n' must be a size in 64 bits, not 1"),
    ):
        with pytest.raises(ValueError, match=re.escape(message)):
            kernel.function(ONE, ONE, (*operands, LyingInt(number)))
    assert out.tolist() == [0.0] * 4


def test_kernel_gets_the_number_that_a_size_holds(module, kernel):
    for size in (Size.FOUR, LyingInt(4)):
        out, operands = arrays(module, 9)
        kernel.function(ONE, ONE, (*operands, size))
        assert out[0].item() == 6.0


def test_lying_sizes_are_multiplied_as_the_numbers_they_hold(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_matmul_kernel")
    a = module.cp.from_dlpack(torch.ones(4, dtype=torch.float64, device="cuda"))
    row = kernel._row
    arguments = [a if p.kind == "array" else LyingInt(1000) for p in row.parameters]
    block = (row.block, 1, 1) if row.block else (16, 16, 1)
    with pytest.raises(ValueError, match="must have at least .* elements, but has 4"):
        kernel.function(ONE, block, tuple(arguments))


def test_class_that_an_object_claims_is_not_asked(module, kernel):
    _, operands = arrays(module, 1)
    with pytest.raises(TypeError, match="'n' must be of type int, not ClaimsToBeInt"):
        kernel.function(ONE, ONE, (*operands, ClaimsToBeInt()))
    with pytest.raises(TypeError, match="args must be a tuple, not ClaimsToBeTuple"):
        kernel.function(ONE, ONE, ClaimsToBeTuple())
    with pytest.raises(TypeError, match="grid must be a tuple of three int"):
        kernel.function(ClaimsToBeTuple(), ONE, (*operands, 1))


def test_lying_tuple_counts_for_the_items_it_holds(module, kernel):
    out, operands = arrays(module, 2)
    assert items_of(LyingTuple((7, 8))) == (7, 8)
    with pytest.raises(TypeError, match="takes 3 arguments .* but got 0"):
        kernel.function(ONE, ONE, LyingTuple())
    with pytest.raises(ValueError, match="out of range"):
        kernel.function(LyingTuple((1, 2**20, 1)), ONE, (*operands, 2))
    kernel.function(LyingTuple((0, 1, 1)), ONE, (*operands, 2))
    assert out[0].item() == 0.0  # a grid without extent


def test_lying_extents_are_checked_by_the_numbers_they_hold():
    with pytest.raises(ValueError, match="out of range"):
        check_extent("kernel", "block", (LyingInt(32), LyingInt(33), 1))
    with pytest.raises(ValueError, match="out of range"):
        check_extent("kernel", "grid", (LyingInt(-1), 1, 1))
    extent = check_extent("kernel", "grid", (LyingInt(5), Size.FOUR, 1))
    assert extent == (5, 4, 1) and {type(n) for n in extent} == {int}


def test_own_block_is_compared_by_its_numbers(module):
    kernel = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    with pytest.raises(ValueError, match="block must be"):
        kernel.function(ONE, (LyingInt(2), 1, 1), ())


# --- One text on both devices


def _raised(call):
    with pytest.raises((TypeError, ValueError)) as caught:
        call()
    return str(caught.value)


def _loader_message(name):
    """A format of the loader as a pattern: every directive matches anything."""
    text = re.search(rf'{name}\[\] =\s+"([^"]*)"', LOADER_MESSAGES.read_text())[1]
    return ".*".join(map(re.escape, re.split(r"%(?:\.\d+)?(?:z?d|lld|[sRUu])", text)))


def test_messages_are_those_of_the_loader(module, kernel):
    _, (x, out) = arrays(module, 1)
    own = module._NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    slope = module._NATIVE_LOADER.get_kernel("tqx_leaky_relu_kernel")
    gaps = module.cp.from_dlpack(torch.zeros(4, 2, dtype=torch.float64, device="cuda")[:, 0])
    cases = {
        "kArgumentCount": lambda: kernel.function(ONE, ONE, (x, out)),
        "kNotAnInt": lambda: kernel.function(ONE, ONE, (x, out, 1.0)),
        "kNotASize": lambda: kernel.function(ONE, ONE, (x, out, -1)),
        "kNotAFloat": lambda: slope.launch(x, 1, out, 1, grid=ONE),
        "kNotContiguous": lambda: kernel.function(ONE, ONE, (x, gaps, 1)),
        "kTooShort": lambda: kernel.function(ONE, ONE, (x, out, 2)),
        "kExtentType": lambda: kernel.function([1, 1, 1], ONE, (x, out, 1)),
        "kExtentRange": lambda: kernel.function((-1, 1, 1), ONE, (x, out, 1)),
        "kOwnBlock": lambda: own.function(ONE, ONE, ()),
        "kNoOwnBlock": lambda: kernel.launch(x, out, 1, grid=ONE),
        "kArgsType": lambda: kernel.function(ONE, ONE, [x, out, 1]),
    }
    for name, call in cases.items():
        assert re.fullmatch(_loader_message(name), _raised(call)), name
