# SPDX-License-Identifier: Apache-2.0
"""Arrays for tests of `korvex.exact`: values of every kind, and the same values in other forms."""

import array_api_strict
import device
import ml_dtypes
import numpy as np
import torch
from hypothesis import strategies as st

MAX = (2.0 - 2.0**-52) * 2.0**1023
LEAST = 2.0**-1074

# Numbers at which digits begin and end, and the ends of the format.
BORDERS = [
    sign * value
    for sign in (1.0, -1.0)
    for value in [
        0.0,
        LEAST,
        2.0**-1022,
        2.0**-1022 - LEAST,
        MAX,
        *(2.0 ** (32 * digit - 1074) for digit in range(1, 65)),
        *(2.0 ** (32 * digit - 1074) * (1 - 2.0**-53) for digit in (2, 17, 33, 34, 35, 64)),
    ]
]

finite = st.floats(allow_nan=False, allow_infinity=False) | st.sampled_from(BORDERS)
near = st.integers(-(2**60), 2**60).map(lambda n: n * 2.0**-20)
cancelling = st.lists(finite | near, max_size=8).map(lambda v: v + [-each for each in v[1:]])
float_lists = st.lists(finite | near, max_size=20) | cancelling
with_specials = st.lists(st.floats() | finite, max_size=12)

REAL_DTYPES = [
    *"bool int8 uint8 int16 uint16 int32 uint32 int64 uint64".split(),
    *"float16 float32 float64 bfloat16".split(),
]


def numpy_dtype(name):
    return np.dtype(ml_dtypes.bfloat16) if name == "bfloat16" else np.dtype(name)


def extremes(name):
    """Values of a dtype that reach its ends, with special values where it has them."""
    dtype = numpy_dtype(name)
    if name == "bool":
        return np.array([True, False, True, True])
    if dtype.kind in "iu":
        info = np.iinfo(dtype)
        return np.array([info.max, info.min, info.max, info.max - 1, 1, 0], dtype)
    info = ml_dtypes.finfo(dtype)
    return np.array(
        [info.max, info.smallest_subnormal, -info.max, info.tiny, 1.5, -0.0, info.max], dtype
    )


def drawn(name, count, seed=1):
    """Reproducible values of a dtype; floats over many binades."""
    generator = np.random.default_rng(seed)
    dtype = numpy_dtype(name)
    if name == "bool":
        return generator.random(count) < 0.5
    if dtype.kind in "iu":
        info = np.iinfo(dtype)
        return generator.integers(info.min, info.max, count, dtype, endpoint=True)
    spread = {"float64": 300.0, "float16": 6.0}.get(name, 60.0)
    return (
        generator.standard_normal(count) * 2.0 ** generator.uniform(-spread, spread, count)
    ).astype(dtype)


# --- Libraries


def to_torch(x):
    if x.dtype.name == "bfloat16":
        return torch.from_numpy(x.view(np.uint16).copy()).view(torch.bfloat16)
    return torch.from_numpy(x.copy())


def to_emulated(x):
    return to_torch(x).to("cuda")


def to_strict(x):
    return array_api_strict.asarray(x)


class DLPackOnly:
    """An array of which nothing is known but DLPack, and the name of its dtype."""

    def __init__(self, tensor):
        self._tensor = tensor
        self.dtype, self.shape = tensor.dtype, tuple(tensor.shape)

    def __dlpack__(self, **arguments):
        return self._tensor.__dlpack__(**arguments)

    def __dlpack_device__(self):
        return self._tensor.__dlpack_device__()


def to_dlpack(x):
    return DLPackOnly(to_torch(x))


LIBRARIES = {
    "numpy": np.array,
    "torch": to_torch,
    "array_api_strict": to_strict,
    "dlpack": to_dlpack,
}
TORCH = [to_torch]

# On a GPU the device "cuda" is another: its memory is refused.
EMULATED = device.choose().emulated
if EMULATED:
    LIBRARIES["emulated"] = to_emulated
    TORCH.append(to_emulated)
