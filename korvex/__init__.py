# SPDX-License-Identifier: Apache-2.0
"""Float64 tensor arithmetic on CUDA devices that keeps every rounding error.

Importing the package imports nothing else: `korvex.tqx_runtime` brings torch and CuPy, and
`korvex.emulation` must be able to act before it does.
"""

import sys

# Its extension modules say so too, in korvex/cpython/module_init.h, where they are loaded without
# this file. Without a fitting module Python would only say that there is none.
if "t" in sys.abiflags:
    raise ImportError(
        "korvex needs CPython with its global interpreter lock, and this is a free-threaded build: "
        "use the interpreter whose name does not end in t."
    )

del sys
