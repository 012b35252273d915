# SPDX-License-Identifier: Apache-2.0
"""`make wheels`: wheels for all processors and interpreters, from one machine, each one checked.

`targets` says for what; `interpreters` finds what runs and what is compiled against; `compiler`,
`build` and `pack` make a wheel; `trial` installs it from its file and runs it; `notes` writes down
what became of them; `make` is the command.
"""
