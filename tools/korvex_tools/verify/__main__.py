# SPDX-License-Identifier: Apache-2.0
"""The command `python -P -m korvex_tools.verify`."""

import sys

from korvex_tools.verify.comparison import main

sys.exit(main())
