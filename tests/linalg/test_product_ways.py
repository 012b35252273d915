# SPDX-License-Identifier: Apache-2.0
"""Every way of the matrix product kernel leaves the same bits, also one that checks itself."""

import ctypes
import os
import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from korvex.emulation._library import HostLibrary, usable_instruction_sets

CHOSEN, BY_SLICES, BY_RESIDUES, BY_DOUBLES = range(4)


def product(library, way, a, b):
    """The three limbs of a product taken by one way."""
    functions = ctypes.CDLL(str(library.path))
    m, k = a.shape
    n = b.shape[1]
    limbs = np.full((3, m, n), 7.0)
    pointers = [ctypes.c_void_p(x.ctypes.data) for x in (a, b, *limbs)]
    functions.korvex_host_set_product_way(way)
    try:
        library.launch(
            library.kernels["tqx_matmul_kernel"],
            (1, 1, 1),
            (16, 16, 1),
            [*pointers, *map(ctypes.c_int64, (m, n, k))],
        )
    finally:
        functions.korvex_host_set_product_way(CHOSEN)
    return limbs.tobytes()


def matrices(m, n, k, spread):
    drawn = np.random.default_rng(m + n + k)
    a, b = (
        drawn.standard_normal(e) * 2.0 ** drawn.integers(-spread, spread + 1, e)
        for e in ((m, k), (k, n))
    )
    a[m // 2, k // 3] = np.nan
    b[k // 2, n // 3] = -np.inf
    a[0, 0] = 1e300
    return a, b


@pytest.mark.parametrize("instruction_set", usable_instruction_sets())
@pytest.mark.parametrize("spread", [0, 30, 300])
def test_all_ways_leave_the_same_bits(instruction_set, spread):
    library = HostLibrary(instruction_set, 2)
    for shape in ((3, 5, 7), (70, 130, 65), (100, 90, 1100)):
        a, b = matrices(*shape, spread)
        expected = product(library, BY_SLICES, a, b)
        assert product(library, BY_RESIDUES, a, b) == expected
        assert product(library, BY_DOUBLES, a, b) == expected
        assert product(library, CHOSEN, a, b) == expected


CHECKED = """
import numpy as np
from korvex import exact
a = np.random.default_rng(1).standard_normal((130, 90))
print(exact.matmul(a, a.T).tobytes().hex())
"""


def test_a_product_that_checks_itself_is_the_same():
    found = [
        subprocess.run(
            [sys.executable, "-P", "-c", CHECKED],
            env=os.environ | {"KORVEX_CHECK_PRODUCTS": value},
            capture_output=True,
            text=True,
            check=True,
        ).stdout
        for value in ("0", "1")
    ]
    assert len(found[0]) == 2 * 8 * 130 * 130 + 1
    assert found[0] == found[1]


def residues_of(library):
    function = ctypes.CDLL(str(library.path)).korvex_host_residues_of_products
    function.restype = ctypes.c_char_p
    return function().decode()


def test_libraries_with_fma_have_residues():
    for instruction_set in usable_instruction_sets():
        found = residues_of(HostLibrary(instruction_set, 1))
        if instruction_set == "avx512":
            assert found == ("bytes" if "avx512_vnni" in flags() else "doubles")
        else:
            assert found == {"base": "", "fma": "doubles"}[instruction_set]


def flags():
    """What Linux says of this processor."""
    text = Path("/proc/cpuinfo").read_text()
    found = re.search(r"^flags\s*:(.*)$", text, re.MULTILINE)
    return found[1].split() if found else []
