# SPDX-License-Identifier: Apache-2.0
"""Records of results that can be verified later, on another machine, by somebody else.

A `Record` holds of each result its shape, its dtype, and 64 hexadecimal digits of SHA-256 for every
limb and for the whole; beside them stands what the results were computed on. Results are arrays,
lists of limbs, accumulators of `korvex.exact`, or sums of files. Verifying needs neither torch nor
a GPU, and names what has changed. The format is JSON; its schema lies beside this module.

Importing this package imports NumPy and nothing else of that size.
"""

from korvex.provenance._faults import Fault, RecordError
from korvex.provenance._record import Record, load, loads

__all__ = ["Fault", "Record", "RecordError", "load", "loads"]

# Public names say where they are found, not where they were written.
for _name in __all__:
    globals()[_name].__module__ = __name__
del _name
