# SPDX-License-Identifier: Apache-2.0
"""Builds probe.cpp with the host compiler and calls it on NumPy arrays."""

import ctypes
import os
import subprocess
import tempfile
from pathlib import Path

import numpy as np

from korvex_tools.source_tree import SOURCE_TREE

FUNCTIONS = {
    "exp": 0,
    "reduced_exp": 1,
    "log": 2,
    "expm1": 3,
    "sigmoid": 4,
    "tanh": 5,
    "quick_exp": 6,
    "quick_log": 7,
    "quick_sigmoid": 8,
    "quick_tanh": 9,
}


class Probe:
    def __init__(self, options=("-mfma", "-mavx2")):
        self._folder = tempfile.TemporaryDirectory()
        library = Path(self._folder.name) / "probe.so"
        compiler = os.environ.get("CXX", "g++")
        flags = ["-std=c++20", "-O2", "-ffp-contract=off", "-shared", "-fPIC", f"-I{SOURCE_TREE}"]
        source = Path(__file__).with_name("probe.cpp")
        subprocess.run([compiler, *flags, *options, source, "-o", library], check=True)
        self._functions = ctypes.CDLL(str(library))
        self._functions.probe_undecided.restype = ctypes.c_size_t

    def _call(self, function, name, x, *out):
        arrays = [ctypes.c_void_p(array.ctypes.data) for array in (x, *out)]
        return function(ctypes.c_int(FUNCTIONS[name]), *arrays, ctypes.c_size_t(len(x)))

    def pairs(self, name, x):
        """Rows (value, error, exponent) of the fast phase."""
        x = np.ascontiguousarray(x, dtype=np.float64)
        out = np.empty((len(x), 3))
        self._call(self._functions.probe_pairs, name, x, out)
        return out

    def undecided(self, name, x):
        """How many arguments need the accurate phase."""
        x = np.ascontiguousarray(x, dtype=np.float64)
        return self._call(self._functions.probe_undecided, name, x)

    def accurate(self, name, x):
        """Results of the accurate phase."""
        x = np.ascontiguousarray(x, dtype=np.float64)
        out = np.empty_like(x)
        self._call(self._functions.probe_accurate, name, x, out)
        return out
