# SPDX-License-Identifier: Apache-2.0
"""Bytes of accumulators: their layout, and that any damage is noticed."""

import hashlib
import struct

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from korvex import exact

KINDS = {exact.Sum: (0, 72), exact.Dot: (1, 138), exact.Moments: (2, 206)}


def filled(kind=exact.Sum):
    made = kind()
    made.add(*[np.array([1.0, -2.5, 1e300, np.inf])] * (2 if kind is exact.Dot else 1))
    return made


def sealed(content):
    return content + hashlib.sha256(content).digest()


@pytest.mark.parametrize("kind", KINDS)
def test_layout(kind):
    accumulator = filled(kind)
    number, words = KINDS[kind]
    data = bytes(accumulator)
    assert data[:12] == struct.pack("<4sHHI", b"KVXE", 1, number, words)
    assert np.array_equal(np.frombuffer(data[12:-32], "<i8"), accumulator.state)
    assert data == sealed(data[:-32])


def test_bytes_of_a_kept_accumulator_are_as_they_were():
    """Written once and kept, so that files of this version stay readable."""
    total = exact.Sum.from_chunks([np.array([0.1, -2.0, 1e300]), np.array([np.inf, 5e-324])])
    assert hashlib.sha256(bytes(total)).hexdigest() == (
        "845309c83b7e69127aafbe9685f296b0235bf01b6190b30db4768ff0b376f2e4"
    )


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("form", [bytes, bytearray, memoryview])
def test_every_form_of_bytes_is_read(kind, form):
    accumulator = filled(kind)
    assert exact.loads(form(bytes(accumulator))) == accumulator


def test_each_changed_byte_is_noticed():
    data = bytes(filled())
    for place in range(len(data)):
        damaged = bytearray(data)
        damaged[place] ^= 1
        with pytest.raises(ValueError):
            exact.loads(damaged)


def test_each_length_is_noticed():
    data = bytes(filled())
    for length in range(len(data)):
        with pytest.raises(ValueError):
            exact.loads(data[:length])
    with pytest.raises(ValueError):
        exact.loads(data + b"\0")


@given(data=st.binary(max_size=1000) | st.binary(max_size=700).map(lambda b: b"KVXE" + b))
def test_foreign_bytes_are_a_value_error(data):
    with pytest.raises(ValueError):
        exact.loads(data)


@given(data=st.binary(max_size=700), header=st.tuples(*[st.integers(0, 300)] * 3))
def test_foreign_bytes_with_a_right_digest_are_a_value_error(data, header):
    """Random words of a right length are out of the digits' range."""
    version, kind, words = header
    content = struct.pack("<4sHHI", b"KVXE", version, kind, words) + data
    with pytest.raises(ValueError):
        exact.loads(sealed(content))


def test_texts():
    data = bytes(filled())
    wrong_version = sealed(b"KVXE\2\0" + data[6:-32])
    wrong_kind = sealed(data[:6] + b"\7\0" + data[8:-32])
    wrong_digit = sealed(data[:12] + b"\xff" * 8 + data[20:-32])
    short = sealed(data[:-40])
    texts = {
        b"": "not the bytes of a korvex.exact accumulator",
        b"pickle" + data: "not the bytes of a korvex.exact accumulator",
        data[:-1] + b"!": "the bytes of the accumulator are damaged: another SHA-256 is expected",
        wrong_version: "an accumulator of version 2, and this is version 1",
        wrong_kind: "an accumulator of the unknown kind 7 with 72 words",
        wrong_digit: "the digits of the accumulator are out of range",
        short: "the bytes of the accumulator have another length than their header says",
    }
    for wrong, text in texts.items():
        with pytest.raises(ValueError) as error:
            exact.loads(wrong)
        assert str(error.value) == text


@pytest.mark.parametrize("wrong", ["KVXE", None, 7, np.zeros(3)])
def test_what_is_no_bytes_is_a_type_error(wrong):
    with pytest.raises(TypeError) as error:
        exact.loads(wrong)
    assert str(error.value) == f"data must be bytes, not {type(wrong).__name__}"
