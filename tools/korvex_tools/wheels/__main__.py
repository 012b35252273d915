# SPDX-License-Identifier: Apache-2.0
"""The command `python -P -m korvex_tools.wheels`."""

import sys

from korvex_tools.wheels.make import main

sys.exit(main(sys.argv[1:]))
