# SPDX-License-Identifier: Apache-2.0
"""TQXVerifiedResult: a value with the checksum it had when it was wrapped."""

import copy
import pickle

import device
import pytest
import torch

ONE_FULL = "6c3c396ed6b5c36dcae172271f462051b1266b851e92df3deea8ac65478fd712"


def one():
    return torch.tensor([1.0], dtype=torch.float64)


# ---- construction ----


@pytest.mark.parametrize("given", [(), (None,), ("",)])
def test_checksum_is_computed_when_none_is_given(runtime, given):
    verified = runtime.TQXVerifiedResult(one(), *given)
    assert verified.checksum == verified._checksum == "6c3c396ed6b5c36d"


def test_given_checksum_is_stored_untested(runtime):
    assert runtime.TQXVerifiedResult(one(), "no hash").checksum == "no hash"
    assert runtime.TQXVerifiedResult(object(), "no hash").checksum == "no hash"


def test_attributes_are_set_in_order(runtime):
    x = one()
    verified = runtime.TQXVerifiedResult(x)
    assert list(vars(verified)) == ["value", "_checksum", "_device"]
    assert verified.value is x and verified._device == "cpu"


def test_device_text_comes_from_the_value(runtime):
    assert runtime.TQXVerifiedResult(device.tensor(1.0))._device == "cuda:0"
    assert runtime.TQXVerifiedResult(runtime.TQXResult([one()], "text"))._device == "text"
    assert runtime.TQXVerifiedResult(object(), "c")._device == "cpu"
    assert runtime.TQXVerifiedResult(runtime.TQXResult([]))._device == "cuda"


def test_device_of_any_type_is_turned_into_text(runtime):
    class Value:
        device = 12.5

    assert runtime.TQXVerifiedResult(Value(), "c")._device == "12.5"


def test_device_that_fails_otherwise_than_missing_is_not_swallowed(runtime):
    failure = RuntimeError("lost")

    class Value:
        @property
        def device(self):
            raise failure

    with pytest.raises(RuntimeError) as caught:
        runtime.TQXVerifiedResult(Value(), "c")
    assert caught.value is failure


def test_value_that_cannot_be_hashed(runtime):
    with pytest.raises(AttributeError, match="double"):
        runtime.TQXVerifiedResult(1.5)
    verified = runtime.TQXVerifiedResult(1.5, "given")
    with pytest.raises(AttributeError, match="double"):
        verified.verify()
    with pytest.raises(AttributeError, match="double"):
        _ = verified.checksum_full


def test_value_is_set_before_the_checksum_is_computed(runtime):
    instance = runtime.TQXVerifiedResult.__new__(runtime.TQXVerifiedResult)
    with pytest.raises(AttributeError, match="double"):
        instance.__init__(1.5)
    assert vars(instance) == {"value": 1.5}


def test_sum_can_be_wrapped(module, launches):
    verified = module.TQXVerifiedResult(module.tqx_sum(device.tensor([0.5, 0.5])))
    assert verified.verify() is True and verified.item() == 1.0
    assert verified.checksum == "6c3c396ed6b5c36d" and launches == ["tqx_sum_seq_kernel"]


# ---- properties ----


def test_full_checksum(runtime):
    assert runtime.TQXVerifiedResult(one(), "any").checksum_full == ONE_FULL


@pytest.mark.parametrize("name", ["checksum", "checksum_full"])
def test_properties_are_read_only(runtime, name):
    verified = runtime.TQXVerifiedResult(one())
    with pytest.raises(AttributeError):
        setattr(verified, name, "x")
    with pytest.raises(AttributeError):
        delattr(verified, name)


@pytest.mark.parametrize(
    "stored, type_name",
    [(5, "int"), (b"x", "bytes"), ([], "list"), (torch.device("cpu"), "torch.device")],
)
def test_stored_checksum_that_is_no_text(runtime, stored, type_name):
    verified = runtime.TQXVerifiedResult(one())
    verified._checksum = stored
    with pytest.raises(TypeError) as caught:
        _ = verified.checksum
    assert caught.value.args == (f"Expected str, got {type_name}",)


def test_stored_none_passes(runtime):
    verified = runtime.TQXVerifiedResult(one())
    verified._checksum = None
    assert verified.checksum is None


def test_missing_stored_checksum_is_an_attribute_error(runtime):
    verified = runtime.TQXVerifiedResult(one())
    del verified._checksum
    with pytest.raises(AttributeError, match="_checksum"):
        _ = verified.checksum


# ---- verify ----


def test_verify_returns_true(runtime):
    assert runtime.TQXVerifiedResult(one()).verify() is True
    assert runtime.TQXVerifiedResult(runtime.TQXResult([one(), one()])).verify() is True


def test_full_stored_checksum_is_shown_whole_and_compared_on_16(runtime):
    verified = runtime.TQXVerifiedResult(one(), ONE_FULL)
    assert verified.checksum == ONE_FULL and verified.verify() is True
    assert runtime.TQXVerifiedResult(one(), ONE_FULL[:16] + "?").verify() is True


def test_short_stored_checksum_never_verifies(runtime):
    verified = runtime.TQXVerifiedResult(one(), ONE_FULL[:15])
    with pytest.raises(ValueError, match="TQX checksum mismatch!"):
        verified.verify()


def test_change_in_place_is_found_out(runtime):
    x = one()
    verified = runtime.TQXVerifiedResult(x)
    x[0] = 2.0
    assert verified.checksum == "6c3c396ed6b5c36d"
    assert verified.checksum_full != ONE_FULL
    with pytest.raises(ValueError) as caught:
        verified.verify()
    assert caught.value.args == (
        "TQX checksum mismatch!\n"
        f"  Got:      {verified.checksum_full[:16]}\n"
        "  Expected: 6c3c396ed6b5c36d\n"
        "  This indicates non-reproducible computation.",
    )
    x[0] = 1.0
    assert verified.verify() is True


def test_other_value_is_found_out(runtime):
    verified = runtime.TQXVerifiedResult(one())
    verified.value = device.tensor([3.0])
    assert verified._device == "cpu" and verified.checksum == "6c3c396ed6b5c36d"
    with pytest.raises(ValueError):
        verified.verify()


# ---- item and repr ----


def test_item(runtime):
    assert runtime.TQXVerifiedResult(one()).item() == 1.0
    assert runtime.TQXVerifiedResult(torch.tensor(3)).item() == 3
    two = torch.tensor([1.0, 2.0], dtype=torch.float64)
    assert runtime.TQXVerifiedResult(runtime.TQXResult([two, two])).item() == 2.0
    with pytest.raises(RuntimeError, match="cannot be converted to Scalar"):
        runtime.TQXVerifiedResult(two).item()


def test_repr(runtime):
    verified = runtime.TQXVerifiedResult(device.tensor([1.0]))
    expected = "TQXVerifiedResult(checksum='6c3c396ed6b5c36d', device='cuda:0')"
    assert repr(verified) == str(verified) == expected
    assert "__str__" not in vars(runtime.TQXVerifiedResult)


def test_repr_formats_what_the_attributes_hold(runtime):
    verified = runtime.TQXVerifiedResult(one())
    verified._checksum, verified._device = None, 5
    assert repr(verified) == "TQXVerifiedResult(checksum='None', device='5')"


# ---- an ordinary object ----


def test_attributes_are_writable(runtime):
    verified = runtime.TQXVerifiedResult(one())
    verified.note = "mine"
    verified._device = "elsewhere"
    assert vars(verified)["note"] == "mine" and "device='elsewhere'" in repr(verified)


def test_verified_result_is_no_limb_result(runtime):
    assert not issubclass(runtime.TQXVerifiedResult, runtime.TQXResult)
    with pytest.raises(AttributeError, match="double"):
        runtime.tqx_checksum(runtime.TQXVerifiedResult(one()))


def test_equality_goes_by_identity(runtime):
    x = one()
    assert runtime.TQXVerifiedResult(x) != runtime.TQXVerifiedResult(x)


def test_subclass(runtime):
    class Subclass(runtime.TQXVerifiedResult):
        @property
        def checksum(self):
            return "own " + super().checksum

    assert Subclass(one()).checksum == "own 6c3c396ed6b5c36d"


def test_copies(module):
    verified = module.TQXVerifiedResult(one(), "stored")
    assert copy.copy(verified).value is verified.value
    for twin in (copy.deepcopy(verified), pickle.loads(pickle.dumps(verified))):
        assert type(twin) is module.TQXVerifiedResult
        assert twin.checksum == "stored" and torch.equal(twin.value, verified.value)
