# SPDX-License-Identifier: Apache-2.0
"""Where the tree lies that these tools belong to."""

from pathlib import Path

SOURCE_TREE = Path(__file__).resolve().parents[2]
