# SPDX-License-Identifier: Apache-2.0
"""Float64 tensor arithmetic on CUDA devices that keeps every rounding error.

Importing the package imports nothing else: `korvex.tqx_runtime` brings torch and CuPy, and
`korvex.emulation` must be able to act before it does.
"""
