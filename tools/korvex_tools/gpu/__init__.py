# SPDX-License-Identifier: Apache-2.0
"""What runs on a machine with a GPU: the driver, stages and their report; and predicted times."""
