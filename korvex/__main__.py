# SPDX-License-Identifier: Apache-2.0
"""`python -m korvex` is the command `korvex`."""

from korvex.command import run

run()
