# SPDX-License-Identifier: Apache-2.0
"""What tests, benchmarks and scripts share, and the programs behind the Makefile; never installed.

It imports none of them. `.venv` finds it by a .pth file that scripts/set_up_environment.sh writes,
other interpreters by PYTHONPATH=tools. Programs run as modules, with -P: without it the folder
korvex/ of the tree would hide the installed package.
"""
