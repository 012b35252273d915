# SPDX-License-Identifier: Apache-2.0
"""The command `python -P -m korvex_tools.mutation`."""

import sys

from korvex_tools.mutation.command import main

sys.exit(main())
