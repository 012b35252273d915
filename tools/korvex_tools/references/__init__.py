# SPDX-License-Identifier: Apache-2.0
"""Exact results in rational numbers, MPFR or whole arrays, and inputs equal on every machine."""
