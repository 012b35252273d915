# SPDX-License-Identifier: Apache-2.0
"""Timing, records of benchmarks, and the pictures and tables of documents made from them."""
