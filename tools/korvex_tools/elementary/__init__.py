# SPDX-License-Identifier: Apache-2.0
"""exp, log, sigmoid and tanh: their tables, error bounds, hard cases and check by MPFR."""
