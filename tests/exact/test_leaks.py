# SPDX-License-Identifier: Apache-2.0
"""Calls of `korvex.exact` leave nothing behind, working and failing, many times over."""

import contextlib
import copy
import gc
import pickle
import sys
import tracemalloc

import numpy as np
import pytest
import torch
from exact_arrays import DLPackOnly, to_strict

from korvex import exact

pytestmark = pytest.mark.usefixtures("quick_collections")


class Subject:
    """What the calls work on, made once: only the calls themselves may allocate."""

    def __init__(self):
        self.x = np.array([1.0, 2.0**-60, -3.0])
        self.z = np.array([1j, 2.0])
        self.matrix = np.ones((2, 3), np.float32)
        self.strided = np.ones(12)[::4]
        self.tensor = torch.tensor([1.0, 2.0])
        self.device = self.tensor.to("cuda")
        self.half = self.tensor.to(torch.bfloat16)
        self.strict = to_strict(self.x)
        self.capsule = DLPackOnly(self.half)
        self.wrong_order = self.x.astype(">f8")
        self.ids, self.huge = np.array([1, 0, 1]), np.array([1e300, 1.0, 1e-300])
        self.sum, self.dot, self.moments = exact.Sum(), exact.Dot(), exact.Moments()
        self.sum.add(self.x)
        self.moments.add(self.x)
        self.data = bytes(self.sum)


CALLS = {
    "sum": lambda s: exact.sum(s.x),
    "sum strided": lambda s: exact.sum(s.strided),
    "sum torch": lambda s: exact.sum(s.tensor),
    "sum bfloat16": lambda s: exact.sum(s.half, dtype="bfloat16"),
    "sum on the device": lambda s: exact.sum(s.device),
    "sum array API": lambda s: exact.sum(s.strict, keepdims=True),
    "sum DLPack": lambda s: exact.sum(s.capsule),
    "sum complex": lambda s: exact.sum(s.z),
    "sum along an axis": lambda s: exact.sum(s.matrix, axis=0),
    "sum along an axis, torch": lambda s: exact.sum(s.half[None], axis=0, keepdims=True),
    "exp": lambda s: exact.exp(s.x),
    "log strided": lambda s: exact.log(s.strided),
    "sqrt bfloat16": lambda s: exact.sqrt(s.half, dtype="bfloat16"),
    "sigmoid on the device": lambda s: exact.sigmoid(s.device),
    "tanh DLPack": lambda s: exact.tanh(s.capsule),
    "mean": lambda s: exact.mean(s.x),
    "mean along an axis": lambda s: exact.mean(s.z[None], axis=1),
    "var": lambda s: exact.var(s.x, correction=1),
    "var along an axis": lambda s: exact.var(s.matrix, axis=1, correction=0.1),
    "std": lambda s: exact.std(s.x, dtype="float32"),
    "vector_norm": lambda s: exact.vector_norm(s.x),
    "vecdot": lambda s: exact.vecdot(s.x, s.x),
    "vecdot along an axis": lambda s: exact.vecdot(s.matrix, s.x.astype("f4")),
    "vecdot complex, along an axis": lambda s: exact.vecdot(s.z[None], s.z),
    "vecdot complex": lambda s: exact.vecdot(s.z, s.z),
    "matmul": lambda s: exact.matmul(s.matrix, s.matrix.T),
    "matmul complex": lambda s: exact.matmul(s.z, s.z),
    "matmul of batches": lambda s: exact.matmul(s.matrix[None], s.matrix.T),
    "cumulative_sum along an axis": lambda s: exact.cumulative_sum(s.matrix, axis=0),
    "cumulative_sum": lambda s: exact.cumulative_sum(s.x, include_initial=True),
    "segment_sum": lambda s: exact.segment_sum(s.x, s.ids, 2),
    "segment_sum of wide values": lambda s: exact.segment_sum(s.huge, s.ids, 2),
    "bincount": lambda s: (exact.bincount(s.ids), exact.bincount(s.ids, weights=s.x)),
    "index_add": lambda s: exact.index_add(s.x, 0, s.ids, s.huge),
    "add and subtract": lambda s: (s.sum.add(s.x), s.sum.subtract(s.x)),
    "add of a pair": lambda s: (s.dot.add(s.x, s.x), s.dot.subtract(s.x, s.x)),
    "moments": lambda s: (s.moments.mean(), s.moments.var(), s.moments.norm(), s.moments.sum()),
    "merge": lambda s: s.sum + s.sum,
    "values": lambda s: (float(s.sum), s.sum.limbs(4), s.sum.to_decimal(5), s.sum.to_fraction()),
    "state": lambda s: s.sum.state,
    "text": lambda s: (repr(s.sum), repr(s.moments), s.sum.checksum()),
    "bytes": lambda s: exact.loads(bytes(s.sum)),
    "copies": lambda s: (copy.copy(s.sum), pickle.loads(pickle.dumps(s.sum))),
    "from_chunks": lambda s: exact.Sum.from_chunks([s.x, s.tensor]),
    "comparison": lambda s: s.sum == s.moments,
    "wrong array": lambda s: exact.sum([1.0]),
    "wrong order": lambda s: exact.sum(s.wrong_order),
    "wrong dtype": lambda s: exact.sum(s.x, dtype="x"),
    "wrong axis": lambda s: exact.sum(s.matrix, axis=2),
    "wrong segment": lambda s: exact.segment_sum(s.x, s.ids, 1),
    "wrong shapes": lambda s: s.dot.add(s.x, s.matrix),
    "wrong lengths": lambda s: exact.vecdot(s.x, s.x[:2]),
    "wrong matrices": lambda s: exact.matmul(s.matrix, s.matrix),
    "wrong bytes": lambda s: exact.loads(s.data[:-1]),
    "wrong class": lambda s: s.sum.merge(s.dot),
}


def blocks_after(call, subject, repeats):
    for _ in range(repeats):
        with contextlib.suppress(Exception):
            call(subject)
    gc.collect()
    return sys.getallocatedblocks()


def leaves_nothing(call, repeats):
    """Whether some round grows by less than a block in two calls, as free lists fill in some."""
    subject = Subject()
    for _ in range(5):
        before = blocks_after(call, subject, 20)
        if blocks_after(call, subject, repeats) - before < repeats / 2:
            return True
    return False


@pytest.mark.parametrize("call", CALLS.values(), ids=CALLS)
def test_two_hundred_calls_leave_nothing(call):
    assert leaves_nothing(call, 200)


@pytest.mark.long
@pytest.mark.parametrize("call", CALLS.values(), ids=CALLS)
def test_ten_thousand_calls_leave_nothing(call):
    assert leaves_nothing(call, 10_000)


def test_every_public_name_is_called():
    words = " ".join(CALLS)
    assert [name for name in exact.__all__ if name.islower() and name not in words] == [
        "all_reduce",  # the two of tensors want processes: tests/distributed
        "get_threads",
        "loads",
        "reduce_scatter_tensor",
        "set_threads",
    ]


def test_calls_leave_the_references_to_their_operands_alone():
    subject = Subject()
    watched = [value for value in vars(subject).values() if not isinstance(value, bytes)]

    def counts():
        for call in CALLS.values():
            for _ in range(5):
                with contextlib.suppress(Exception):
                    call(subject)
        gc.collect()
        return [sys.getrefcount(thing) for thing in watched]

    assert counts() == counts()


def test_no_copy_of_a_large_operand_is_made():
    x = np.ones(1_000_000)
    strided, narrow = np.ones(2_000_000, np.float32)[::2], np.ones(1_000_000, np.int16)
    for array in (x, strided, narrow):
        exact.sum(array)
        tracemalloc.start()
        exact.sum(array)
        exact.vecdot(array, array)
        exact.var(array)
        exact.Moments.from_chunks([array])
        most = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        assert most < 200_000
