# SPDX-License-Identifier: Apache-2.0
"""Calls leave nothing behind: every public function, working and failing, many times over."""

import contextlib
import gc
import pickle
import sys

import pytest
import torch
from device import tensor

pytestmark = pytest.mark.usefixtures("quick_collections")


class _Subject:
    """What the calls work on, made once: only the calls themselves may allocate."""

    def __init__(self, module):
        self.module = module
        self.x = tensor([[1.0, 2.0**-60], [3.0, 4.0]])
        self.host = torch.tensor([1.0, 2.0], dtype=torch.float64)
        self.result = module.TQXResult([self.host, self.host])
        self.verified = module.TQXVerifiedResult(self.host)


CALLS = {
    "tqx_sum": lambda s: s.module.tqx_sum(s.x),
    "tqx_sum limbs": lambda s: s.module.tqx_sum(s.x, return_tqx=True),
    "tqx_sum parallel": lambda s: s.module.tqx_sum(s.x, exact=False),
    "tqx_sum parallel limbs": lambda s: s.module.tqx_sum(s.x, exact=False, return_tqx=True),
    "tqx_sum dim": lambda s: s.module.tqx_sum(s.x, dim=1.5, keepdim=True),
    "tqx_sum host": lambda s: s.module.tqx_sum(s.host),
    "tqx_sum wrong dim": lambda s: s.module.tqx_sum(s.x, dim="0"),
    "tqx_sum too many": lambda s: s.module.tqx_sum(s.x, 1, 2, 3, 4, 5),
    "tqx_sum too few": lambda s: s.module.tqx_sum(),
    "tqx_sum keyword": lambda s: s.module.tqx_sum(s.x, bogus=s.x),
    "tqx_sum double": lambda s: s.module.tqx_sum(s.x, x=s.x),
    "tqx_sum number as keyword": lambda s: s.module.tqx_sum(**{1: s.x}),
    "tqx_sum of no tensor": lambda s: s.module.tqx_sum("x"),
    "tqx_mean": lambda s: s.module.tqx_mean(s.x),
    "tqx_mean limbs": lambda s: s.module.tqx_mean(s.x, return_tqx=True),
    "tqx_mean dim": lambda s: s.module.tqx_mean(s.x, 0),
    "tqx_mean dim out of range": lambda s: s.module.tqx_mean(s.x, 7),
    "tqx_sum_exact": lambda s: s.module.tqx_sum_exact(s.x),
    "tqx_mean_exact": lambda s: s.module.tqx_mean_exact(s.x),
    "tqx_sin": lambda s: s.module.tqx_sin(s.x, 3),
    "tqx_sin host": lambda s: s.module.tqx_sin(s.host),
    "tqx_sin of text terms": lambda s: s.module.tqx_sin(s.x, "3"),
    "tqx_cos": lambda s: s.module.tqx_cos(s.x, 3.5, return_tqx=True),
    "tqx_tan": lambda s: s.module.tqx_tan(s.x),
    "tqx_asin": lambda s: s.module.tqx_asin(s.x, 3),
    "tqx_acos": lambda s: s.module.tqx_acos(s.x),
    "tqx_atan": lambda s: s.module.tqx_atan(s.x, 3, True),
    "tqx_atan2": lambda s: s.module.tqx_atan2(s.x, s.x),
    "tqx_atan2 host": lambda s: s.module.tqx_atan2(s.x, s.host),
    "tqx_atan2 shapes": lambda s: s.module.tqx_atan2(s.x, s.x[0, :1].expand(3)),
    "tqx_sinh": lambda s: s.module.tqx_sinh(s.x, 3),
    "tqx_cosh": lambda s: s.module.tqx_cosh(s.x, 3),
    "tqx_cosh limbs": lambda s: s.module.tqx_cosh(s.result, 3),
    "tqx_fft": lambda s: s.module.tqx_fft(s.x),
    "tqx_fft padded": lambda s: s.module.tqx_fft(s.x, 4),
    "tqx_fft truncated": lambda s: s.module.tqx_fft(s.x, 1.5),
    "tqx_fft negative": lambda s: s.module.tqx_fft(s.x, -1),
    "tqx_fft library": lambda s: s.module.tqx_fft(s.x, 3, 0),
    "tqx_fft dim": lambda s: s.module.tqx_fft(s.x, None, None),
    "tqx_ifft": lambda s: s.module.tqx_ifft(s.x.to(torch.complex128)),
    "tqx_ifft limbs": lambda s: s.module.tqx_ifft(s.result),
    "tqx_rfft": lambda s: s.module.tqx_rfft(s.x),
    "tqx_irfft": lambda s: s.module.tqx_irfft(s.x.to(torch.complex128)),
    "tqx_irfft dim": lambda s: s.module.tqx_irfft(s.x, dim=7),
    "butterfly of a wrong length": lambda s: s.module._tqx_fft_butterfly(s.x.new_zeros(6)),
    "tqx_add": lambda s: s.module.tqx_add(s.x, s.x),
    "tqx_add pair": lambda s: s.module.tqx_add(s.x, 1.5, return_tqx=True),
    "tqx_add limbs": lambda s: s.module.tqx_add(s.result, s.result, return_tqx=True),
    "tqx_add collapsed": lambda s: s.module.tqx_add(s.host, s.result),
    "tqx_add number": lambda s: s.module.tqx_add(s.x, 1.5),
    "tqx_sub": lambda s: s.module.tqx_sub(s.x, s.x),
    "tqx_sub limbs": lambda s: s.module.tqx_sub(s.result, s.host, True),
    "tqx_sub shapes": lambda s: s.module.tqx_sub(s.x, s.x[0, :1].expand(3)),
    "tqx_mul": lambda s: s.module.tqx_mul(s.x, s.x[0]),
    "tqx_mul number": lambda s: s.module.tqx_mul(s.x, 2.0),
    "tqx_div": lambda s: s.module.tqx_div(s.x, s.x, return_tqx=True),
    "tqx_div host": lambda s: s.module.tqx_div(s.x, s.host),
    "_twosum_f64": lambda s: s.module._twosum_f64(s.host, 1.0),
    "_two_sum": lambda s: s.module._two_sum(1.0, 2.0),
    "_two_product": lambda s: s.module._two_product(s.host, s.host),
    "_two_product text": lambda s: s.module._two_product("a", "b"),
    "_compensated_sum": lambda s: s.module._compensated_sum([s.host] * 3),
    "_compensated_sum of none": lambda s: s.module._compensated_sum([]),
    "_compensated_sum no clone": lambda s: s.module._compensated_sum([1.0]),
    "_extract_tqx_tensor": lambda s: s.module._extract_tqx_tensor(s.result),
    "_get_tqx_limbs": lambda s: s.module._get_tqx_limbs(s.host),
    "_tqx_add_limbs": lambda s: s.module._tqx_add_limbs([s.host] * 3, [s.host] * 3, "d"),
    "_tqx_add_limbs of none": lambda s: s.module._tqx_add_limbs([], [], "d"),
    "_tqx_sub_limbs": lambda s: s.module._tqx_sub_limbs([s.host], [s.host], "d"),
    "tqx_checksum": lambda s: s.module.tqx_checksum(s.x, 2.5),
    "tqx_checksum limbs": lambda s: s.module.tqx_checksum(s.result),
    "tqx_checksum_hex": lambda s: s.module.tqx_checksum_hex(s.host),
    "tqx_verify": lambda s: s.module.tqx_verify(s.host, "0" * 16, raise_on_mismatch=False),
    "tqx_verify mismatch": lambda s: s.module.tqx_verify(s.host, "0" * 16),
    "tqx_verify subclass": lambda s: s.module.tqx_verify(s.host, _Text("0")),
    "tqx_verify overflow": lambda s: s.module.tqx_verify(s.host, "0", 10**30),
    "get_backend_info": lambda s: s.module.get_backend_info(),
    "get_backend_info argument": lambda s: s.module.get_backend_info(1),
    "TQXResult": lambda s: s.module.TQXResult([s.host], "d"),
    "TQXResult no list": lambda s: s.module.TQXResult((), "d"),
    "TQXResult no shape": lambda s: s.module.TQXResult([None]),
    "collapse": lambda s: s.result.collapse(),
    "item": lambda s: s.result.item(),
    "float": lambda s: float(s.result),
    "squeeze": lambda s: s.result.squeeze(0),
    "unsqueeze": lambda s: s.result.unsqueeze(True),
    "view": lambda s: s.result.view(2, 1),
    "view that does not fit": lambda s: s.result.view(3, 5),
    "reshape": lambda s: s.result.reshape((1, 2)),
    "repr": lambda s: repr(s.result),
    "to_decimal": lambda s: s.result.to_decimal((1,)),
    "to_decimal no index": lambda s: s.result.to_decimal(),
    "to_decimal bad index": lambda s: s.result.to_decimal((9,)),
    "_fp64_to_decimal": lambda s: s.result._fp64_to_decimal(0.1),
    "TQXVerifiedResult": lambda s: s.module.TQXVerifiedResult(s.result),
    "verified checksum": lambda s: (s.verified.checksum, s.verified.checksum_full),
    "verified verify": lambda s: s.verified.verify(),
    "verified item": lambda s: s.verified.item(),
    "verified repr": lambda s: repr(s.verified),
    "pickling": lambda s: pickle.loads(pickle.dumps(s.module.tqx_sum)),
    "annotations": lambda s: (s.module.tqx_sum.__annotations__, s.module.tqx_sum.__signature__),
}


class _Text(str):
    __slots__ = ()


def blocks_after(call, subject, repeats):
    for _ in range(repeats):
        with contextlib.suppress(Exception):
            call(subject)
    gc.collect()
    return sys.getallocatedblocks()


def growth(call, subject, repeats):
    """How many memory blocks more there are after that many calls."""
    before = blocks_after(call, subject, 20)
    return blocks_after(call, subject, repeats) - before


def leaves_nothing(module, call, repeats):
    """Whether some round grows by less than a block in two calls.

    A leak shows in every round. Free lists of the interpreter fill in some only.
    """
    subject = _Subject(module)
    return any(growth(call, subject, repeats) < repeats / 2 for _ in range(5))


@pytest.mark.parametrize("call", CALLS.values(), ids=CALLS)
def test_two_hundred_calls_leave_nothing(module, call):
    assert leaves_nothing(module, call, 200)


@pytest.mark.long
@pytest.mark.parametrize("call", CALLS.values(), ids=CALLS)
def test_ten_thousand_calls_leave_nothing(module, call):
    assert leaves_nothing(module, call, 10_000)


@pytest.mark.skipif(sys.getallocatedblocks() == 0, reason="PYTHONMALLOC=malloc counts no blocks")
def test_leak_of_one_small_object_a_call_is_noticed(module):
    kept = []
    assert not leaves_nothing(module, lambda subject: kept.append(object()), 200)


def test_calls_leave_the_references_to_their_operands_alone(module):
    subject = _Subject(module)
    watched = [subject.x, subject.host, subject.result.limbs, module.TQXResult, vars(module)]

    def counts():
        for call in CALLS.values():
            for _ in range(5):
                with contextlib.suppress(Exception):
                    call(subject)
        gc.collect()
        return [sys.getrefcount(thing) for thing in watched]

    assert counts() == counts()


def test_arrays_are_dropped_after_the_launch(module, monkeypatch):
    """Nothing holds a view of the operand any longer once the call has returned."""
    made = []

    class Array:
        def __init__(self, shared):
            made.append(self)

        alive = 0

    class Cupy:
        cuda = module.cp.cuda
        from_dlpack = Array

    class Kernel:
        @staticmethod
        def function(grid, block, arguments):
            Array.alive = [sys.getrefcount(array) for array in made]

    monkeypatch.setattr(module, "cp", Cupy)
    loader = type("Loader", (), {"get_kernel": lambda self, name: Kernel})
    monkeypatch.setattr(module, "_NATIVE_LOADER", loader())
    module.tqx_sum(tensor([1.0]))
    held_by_the_list_alone = [sys.getrefcount(array) for array in [object()]]
    assert [sys.getrefcount(array) for array in made] == [held_by_the_list_alone[0]] * 2
    assert all(count > held_by_the_list_alone[0] for count in Array.alive)
