# SPDX-License-Identifier: Apache-2.0
"""The single-block reductions in the host libraries: threads and instruction sets do not show."""

import ctypes
import random

import numpy as np
import pytest

from korvex.emulation._library import HostLibrary, usable_instruction_sets

ONE = (1, 1, 1)
COUNT = 200_000  # three slices
USABLE = usable_instruction_sets()
OUTPUTS = {
    "tqx_var_kernel": (1, 1),
    "tqx_norm_kernel": (1,),
    "tqx_prod_kernel": (1, 1),
    "tqx_cumsum_kernel": (COUNT, COUNT),
    "tqx_logsumexp_kernel": (1,),
}


def values(kind):
    source = random.Random(kind)
    spread = {"narrow": 1, "wide": 300, "logits": 5}[kind]
    signed = [source.uniform(-1, 1) * 2.0 ** source.randint(-spread, spread) for _ in range(COUNT)]
    return np.array(signed)


def outputs(instruction_set, threads, name, x):
    library = HostLibrary(instruction_set, threads)
    arrays = [x, *(np.full(size, 7.0) for size in OUTPUTS[name])]
    pointers = [ctypes.c_void_p(array.ctypes.data) for array in arrays]
    library.launch(library.kernels[name], ONE, ONE, [*pointers, ctypes.c_int64(x.size)])
    return [array.tobytes() for array in arrays[1:]]


@pytest.mark.parametrize("kind", ["narrow", "wide", "logits"])
@pytest.mark.parametrize("name", OUTPUTS)
def test_threads_and_instruction_sets_do_not_show(name, kind):
    x = values(kind)
    expected = outputs("base", 1, name, x)
    for instruction_set in USABLE:
        for threads in (1, 2, 3):
            assert outputs(instruction_set, threads, name, x) == expected
