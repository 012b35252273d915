# SPDX-License-Identifier: Apache-2.0
"""The bytes of a state: a header, the settled words, and the SHA-256 of both.

The header has twelve bytes: four that name the format, its version, the kind of the state and the
number of its words. Everything is little-endian, so equal states have equal bytes on every machine.
"""

from __future__ import annotations

import hashlib
import struct

import numpy as np

from korvex.exact import _native
from korvex.exact._state import COUNTS, DOT, MOMENTS, SUM, SUM_DIGITS, State

_HEADER = struct.Struct("<4sHHI")
_NAME = b"KVXE"
_VERSION = 1
_DIGEST_BYTES = 32
_KINDS = (SUM, DOT, MOMENTS)


def digest_of(state: State) -> bytes:
    """SHA-256 of the header and the settled words."""
    return hashlib.sha256(_content(state)).digest()


def to_bytes(state: State) -> bytes:
    content = _content(state)
    return content + hashlib.sha256(content).digest()


def _content(state: State) -> bytes:
    state = state.on_host().copy()
    state.settle()
    header = _HEADER.pack(_NAME, _VERSION, state.kind, state.words.size)
    return header + state.words.astype("<i8").tobytes()


def from_bytes(data: bytes) -> State:
    """Read a state back; a ValueError where the bytes are not as `to_bytes` writes them."""
    if len(data) < _HEADER.size + _DIGEST_BYTES or data[: len(_NAME)] != _NAME:
        raise ValueError("not the bytes of a korvex.exact accumulator")
    _, version, kind, count = _HEADER.unpack_from(data)
    if version != _VERSION:
        raise ValueError(f"an accumulator of version {version}, and this is version {_VERSION}")
    content, digest = data[:-_DIGEST_BYTES], data[-_DIGEST_BYTES:]
    if hashlib.sha256(content).digest() != digest:
        raise ValueError("the bytes of the accumulator are damaged: another SHA-256 is expected")
    if kind not in _KINDS or count != _native.words(kind):
        raise ValueError(f"an accumulator of the unknown kind {kind} with {count} words")
    if len(content) != _HEADER.size + 8 * count:
        raise ValueError("the bytes of the accumulator have another length than their header says")
    words = np.frombuffer(content, "<i8", offset=_HEADER.size).astype(np.int64)
    state = State(kind, words)
    if not _is_settled(state):
        raise ValueError("the digits of the accumulator are out of range")
    return state


def _is_settled(state: State) -> bool:
    """Whether every digit but the top one of each part lies in [0, 2^32)."""
    digits = state.words[:-COUNTS]
    cut = [SUM_DIGITS] if state.kind == MOMENTS else []
    lower = np.concatenate([part[:-1] for part in np.split(digits, cut)])
    return bool(((lower >= 0) & (lower < 2**32)).all())
