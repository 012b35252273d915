# SPDX-License-Identifier: Apache-2.0
"""The command `korvex`: exact sums of files, records of them, and what would run on this machine.

Exit codes, one for each kind of end, are in `_codes.py`. The command wants the extra `cli`:
pyarrow, tqdm and rich; it neither imports torch nor needs a GPU.
"""

from korvex.command._main import main, run

__all__ = ["main", "run"]
