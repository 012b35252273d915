# SPDX-License-Identifier: Apache-2.0
"""What runs on a machine with a GPU: the driver, checks of every kernel, the report."""
