# SPDX-License-Identifier: Apache-2.0
"""What runs on a machine with a GPU: the driver, the stages and their report."""
