# SPDX-License-Identifier: Apache-2.0
"""Planted faults: mutants of the arithmetic and of the host kernels, and which tests kill them."""
