# SPDX-License-Identifier: Apache-2.0
"""Numbers of files as streams of NumPy arrays, with memory for one piece of the file.

Text, CSV and TSV, NPY and NPZ, Parquet and Arrow, compressed by gzip or zstandard or not, from a
file or from standard input. What cannot be read is an `InputError` of one line. Importing this
package imports NumPy; pyarrow reads text and its own formats, and is imported where it is needed.
"""

from korvex.readers._bytes import Digest, is_regular_file, size_of
from korvex.readers._errors import InputError, MissingPackage, as_input_errors
from korvex.readers._open import FORMATS, open_table
from korvex.readers._sources import STANDARD_INPUT, Source, grouped, source_of
from korvex.readers._table import ReadOptions, Table

__all__ = [
    "FORMATS",
    "STANDARD_INPUT",
    "Digest",
    "InputError",
    "MissingPackage",
    "ReadOptions",
    "Source",
    "Table",
    "as_input_errors",
    "grouped",
    "is_regular_file",
    "open_table",
    "size_of",
    "source_of",
]
