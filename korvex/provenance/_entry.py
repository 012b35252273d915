# SPDX-License-Identifier: Apache-2.0
"""What a record says of one result, and in what two results differ.

The limbs of a result are arrays of one shape and dtype whose unrounded sum it is; a plain array is
its own single limb. Elements are hashed by their bits, row by row, the lowest byte of each first.
"""

from __future__ import annotations

import hashlib
import json
import math
import sys
from collections.abc import Sequence
from typing import Any, NamedTuple

import numpy as np

from korvex import exact
from korvex.provenance._faults import Fault

Entry = dict[str, Any]
Array = np.ndarray[Any, Any]

DIGITS = 64  # of a SHA-256
MOST_BITS = 16  # elements of a limb whose bits are kept in full
_DTYPE_KINDS = "biufc"
# What the checksum of a result is of. Its name and where it came from are left out, so that equal
# results have equal checksums.
_HASHED = ("kind", "shape", "dtype", "count", "state_sha256")


class Limbs(NamedTuple):
    """A result as arrays."""

    kind: str  # "array", "limbs", "Sum" or "Dot"
    arrays: list[Array]
    dtype: str
    accumulator: exact.Sum | exact.Dot | None = None


def entry_of(value: Any) -> Entry:
    """What a record says of a result."""
    limbs = _limbs_of(value)
    shape = limbs.arrays[0].shape
    entry: Entry = {
        "kind": limbs.kind,
        "shape": list(shape),
        "dtype": limbs.dtype,
        "shape_sha256": shape_sha256(shape),
        "limbs": [_limb(array) for array in limbs.arrays],
    }
    if limbs.accumulator is not None:
        entry["count"] = limbs.accumulator.count
        entry["state_sha256"] = limbs.accumulator.checksum()
    if shape == () and limbs.dtype != "bfloat16":
        entry["value"] = repr(_value(limbs.arrays))
    entry["sha256"] = result_sha256(entry)
    return entry


def _value(arrays: Sequence[Array]) -> Any:
    """Of a single number, for a reader: the sum of its limbs, correctly rounded."""
    numbers = [array.item() for array in arrays]
    finite = len(numbers) > 1 and all(map(math.isfinite, numbers))
    return math.fsum(numbers) if finite and isinstance(numbers[0], float) else numbers[0]


def _limb(array: Array) -> dict[str, Any]:
    data = np.ascontiguousarray(array)
    data = data.astype(data.dtype.newbyteorder("<"), copy=False)
    limb: dict[str, Any] = {"sha256": hashlib.sha256(data.tobytes()).hexdigest()}
    if array.size <= MOST_BITS:
        width = data.dtype.itemsize
        raw = data.tobytes()
        elements = [raw[first : first + width] for first in range(0, len(raw), width)]
        limb["bits"] = [element[::-1].hex() for element in elements]
    return limb


def shape_sha256(shape: Sequence[int]) -> str:
    """Of the number of axes and their lengths, as integers of 8 bytes."""
    return hashlib.sha256(np.array([len(shape), *shape], "<i8").tobytes()).hexdigest()


def limb_sha256(bits: Sequence[str]) -> str:
    """Of the elements whose bits these are."""
    return hashlib.sha256(b"".join(bytes.fromhex(each)[::-1] for each in bits)).hexdigest()


def result_sha256(entry: Entry) -> str:
    """Of the form of a result and of all its limbs."""
    hashed = {key: entry[key] for key in _HASHED if key in entry}
    hashed["limbs"] = [limb["sha256"] for limb in entry["limbs"]]
    return canonical_sha256(hashed)


def canonical_sha256(value: Any) -> str:
    """Of a JSON text with sorted keys, in ASCII, without blanks."""
    text = json.dumps(value, sort_keys=True, separators=(",", ":"), ensure_ascii=True)
    return hashlib.sha256(text.encode("ascii")).hexdigest()


# --- Results of Python


def _limbs_of(value: Any) -> Limbs:
    if isinstance(value, (exact.Sum, exact.Dot)):
        limbs = [np.array(limb) for limb in value.limbs(4)]
        return Limbs(type(value).__name__, limbs, "float64", value)
    if isinstance(value, exact.Moments):
        raise TypeError("a result of class Moments is two: record its sum() and sum_of_squares()")
    if hasattr(type(value), "checksum_full"):  # a result that carries its checksum
        value = value.value
    if isinstance(getattr(value, "limbs", None), (list, tuple)):
        arrays, dtypes = zip(*map(_array_of, value.limbs), strict=True)
        if len({(array.shape, dtype) for array, dtype in zip(arrays, dtypes, strict=True)}) != 1:
            raise TypeError("the limbs of a result must have one shape and one dtype")
        return Limbs("limbs", list(arrays), dtypes[0])
    array, dtype = _array_of(value)
    return Limbs("array", [array], dtype)


def _array_of(value: Any) -> tuple[Array, str]:
    """The elements in host memory, and the name of their dtype."""
    torch = sys.modules.get("torch")
    if torch is not None and isinstance(value, torch.Tensor):
        host = value.detach().cpu().resolve_conj().resolve_neg()
        if host.dtype == torch.bfloat16:
            return host.view(torch.uint16).numpy(), "bfloat16"
        return _checked(host.numpy())
    if hasattr(value, "__cuda_array_interface__"):
        return _checked(value.get())
    if isinstance(value, (np.ndarray, np.generic, bool, int, float, complex)):
        return _checked(np.asarray(value))
    if hasattr(value, "__dlpack__"):
        return _checked(np.from_dlpack(value))
    raise TypeError(
        f"a result must be an array, a number, limbs or an accumulator, not {type(value).__name__}"
    )


def _checked(array: Array) -> tuple[Array, str]:
    if array.dtype.name == "bfloat16":
        return array.view(np.uint16), "bfloat16"
    if array.dtype.kind not in _DTYPE_KINDS or array.dtype.itemsize not in (1, 2, 4, 8, 16):
        raise TypeError(f"a result of dtype {array.dtype} cannot be recorded: numbers are wanted")
    if array.dtype.char in "gG":
        raise TypeError(f"a result of dtype {array.dtype} has other bits on other machines")
    return array, array.dtype.newbyteorder("=").name


# --- Comparing


def differences(name: str, recorded: Entry, now: Entry) -> list[Fault]:
    """In what a result differs from the recorded one, each named."""
    faults = []
    for key in ("kind", "dtype", "shape", "count"):
        if recorded.get(key) != now.get(key):
            faults.append(Fault(key, name, _differs(key, recorded.get(key), now.get(key))))
    before, after = recorded["limbs"], now["limbs"]
    if len(before) != len(after):
        faults.append(Fault("limb", name, _differs("number of limbs", len(before), len(after))))
    for index, (old, new) in enumerate(zip(before, after, strict=False)):
        if old["sha256"] != new["sha256"]:
            faults.append(Fault("limb", name, _limb_differs(index, old, new)))
    if not faults and recorded.get("state_sha256") != now.get("state_sha256"):
        text = _differs("exact value", recorded.get("state_sha256"), now.get("state_sha256"))
        faults.append(Fault("state", name, text))
    if not faults and recorded["sha256"] != now["sha256"]:
        text = _differs("SHA-256", recorded["sha256"], now["sha256"])
        faults.append(Fault("checksum", name, text))
    return faults


def _differs(what: str, recorded: Any, now: Any) -> str:
    return f"{what} is {json.dumps(now)}, and {json.dumps(recorded)} is recorded"


def _limb_differs(index: int, recorded: dict[str, Any], now: dict[str, Any]) -> str:
    old, new = recorded.get("bits"), now.get("bits")
    if old is not None and new is not None and len(old) == len(new):
        for place, (before, after) in enumerate(zip(old, new, strict=True)):
            if before != after:
                return (
                    f"limb {index}: element {place} has the bits {after}, and {before} is recorded"
                )
    return f"limb {index}: " + _differs("SHA-256", recorded["sha256"], now["sha256"])
