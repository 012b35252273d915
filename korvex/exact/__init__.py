# SPDX-License-Identifier: Apache-2.0
"""Exact sums, products and moments of any array, with one rounding at the end or none.

The arithmetic is that of `korvex.tqx_runtime`, behind other doors: arrays of NumPy, torch, CuPy and
whatever has DLPack on the CPU, of any real dtype, whole or in parts; nothing needs to be activated.
Those of torch and CuPy on a GPU are worked on there.
A result is the exact value correctly rounded, so it depends on the elements alone: not on their
order, their layout, threads, processors, or how they were cut into parts.

Importing this package imports NumPy and nothing else of that size.
"""

from korvex.exact._accumulator import loads
from korvex.exact._collectives import all_reduce, reduce_scatter_tensor
from korvex.exact._functions import mean, std, sum, var, vector_norm
from korvex.exact._gradients import GradientAccumulator
from korvex.exact._moments import Moments
from korvex.exact._products import cumulative_sum, matmul, vecdot
from korvex.exact._segments import bincount, index_add, segment_sum
from korvex.exact._sums import Dot, Sum
from korvex.exact._threads import get_threads, set_threads

__all__ = [
    "Dot",
    "GradientAccumulator",
    "Moments",
    "Sum",
    "all_reduce",
    "bincount",
    "cumulative_sum",
    "get_threads",
    "index_add",
    "loads",
    "matmul",
    "mean",
    "reduce_scatter_tensor",
    "segment_sum",
    "set_threads",
    "std",
    "sum",
    "var",
    "vecdot",
    "vector_norm",
]

# Public names say where they are found, not where they were written.
for _name in __all__:
    globals()[_name].__module__ = __name__
del _name
