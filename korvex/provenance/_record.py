# SPDX-License-Identifier: Apache-2.0
"""A record: results, what they were computed on, and how both are verified."""

from __future__ import annotations

import datetime
import json
import os
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from typing import Any, Self

from korvex.exact._html import table
from korvex.provenance import _files
from korvex.provenance._check import document_sha256, faults_of_document
from korvex.provenance._document import FORMAT, VERSION, parsed
from korvex.provenance._entry import Entry, differences, entry_of
from korvex.provenance._environment import environment
from korvex.provenance._faults import Fault
from korvex.provenance._write import write_whole


def _no_matter(count: int) -> None:
    pass


class Record:
    """Results by name, with checksums of all their limbs, and what they were computed on.

    Parameters
    ----------
    folder : path, optional
        Where the record will lie: paths of files in it start there.

    Examples
    --------
    >>> import numpy as np
    >>> from korvex import exact, provenance
    >>> total = exact.Sum.from_chunks([np.array([1e16, 1.0, -1e16])])
    >>> record = provenance.Record()
    >>> record.add("total", total)
    >>> record.verify({"total": total})
    []
    >>> total.add(np.array([2.0**-60]))
    >>> [fault.kind for fault in record.verify({"total": total})]
    ['count', 'limb']
    """

    def __init__(self, folder: str | os.PathLike[str] = ".") -> None:
        self.folder = Path(folder)
        now = datetime.datetime.now(datetime.UTC)
        self._document: dict[str, Any] = {
            "format": FORMAT,
            "version": VERSION,
            "made": now.isoformat(timespec="seconds"),
            "environment": environment(),
            "results": [],
        }
        self._is_sealed = False

    @classmethod
    def _of(cls, document: dict[str, Any], folder: Path) -> Self:
        made = cls.__new__(cls)
        made.folder = folder
        made._document = document
        made._is_sealed = True
        return made

    # --- What it holds

    @property
    def made(self) -> str:
        """Date and time in UTC."""
        return str(self._document["made"])

    @property
    def environment(self) -> dict[str, str]:
        """What the results were computed on, as it was recorded."""
        return dict(self._document["environment"])

    @property
    def results(self) -> dict[str, dict[str, Any]]:
        """What is recorded of each result, by its name, as the format has it."""
        entries = json.loads(json.dumps(self._document["results"]))
        return {entry["name"]: entry for entry in entries}

    def add(self, name: str, value: Any, /) -> None:
        """Record a result under a name.

        Parameters
        ----------
        name : str
            One that no result of this record has.
        value : array, number, limb result or accumulator
            An array of NumPy, torch, CuPy or anything with DLPack, on a device or not; a result of
            `korvex.tqx_runtime` with its limbs; `Sum` or `Dot` of `korvex.exact`.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import provenance
        >>> record = provenance.Record()
        >>> record.add("weights", np.ones((2, 3), np.float32))
        >>> record.results["weights"]["shape"], record.results["weights"]["dtype"]
        ([2, 3], 'float32')
        """
        if not isinstance(name, str):
            raise TypeError(f"name must be a str, not {type(name).__name__}")
        self._append([{"name": name} | entry_of(value)])

    def add_file(
        self,
        path: str | os.PathLike[str],
        columns: Sequence[str | None] = (None,),
        *,
        format: str | None = None,
        header: bool | None = None,
        missing: Sequence[str] = (),
        on_read: Callable[[int], None] = _no_matter,
    ) -> None:
        """Record the exact sums of a file's columns, and the checksum of the file.

        Parameters
        ----------
        path : path
            Text, CSV, TSV, NPY, NPZ, Parquet or Arrow, compressed or not; "-" is standard input.
        columns : sequence of str or None
            Names, or numbers from 1; None stands for all that hold numbers.
        format, header, missing
            As of the command `korvex sum`.
        on_read : callable, optional
            Gets the number of bytes with each piece that was read.

        Raises
        ------
        ValueError
            If a column of this file is recorded already.
        korvex.readers.InputError
            If the file cannot be read.

        Examples
        --------
        >>> import numpy as np, tempfile
        >>> from korvex import provenance
        >>> with tempfile.NamedTemporaryFile(suffix=".npy") as file:
        ...     np.save(file, np.array([0.5, 0.25]))
        ...     file.flush()
        ...     record = provenance.Record(folder="/tmp")
        ...     record.add_file(file.name)
        >>> [entry["value"] for entry in record.results.values()]
        ['0.75']
        """
        from korvex import readers

        options = readers.ReadOptions(format, header, tuple(missing))
        entries = _files.entries_of_file(os.fspath(path), columns, self.folder, options, on_read)
        self._append(entries)

    def _append(self, entries: Sequence[Entry]) -> None:
        if self._is_sealed:
            raise ValueError("a record that was read is not added to: make a new one")
        known = {entry["name"] for entry in self._document["results"]}
        for entry in entries:
            if entry["name"] in known:
                raise ValueError(f"a result named {entry['name']} is recorded already")
        self._document["results"] += entries

    # --- Text

    def __repr__(self) -> str:
        entries = self._document["results"]
        plural = "" if len(entries) == 1 else "s"
        return f"<Record of {self.made}: {len(entries)} result{plural}>"

    def _repr_html_(self) -> str:
        """What it holds as a table, for notebooks."""
        rows = [
            (
                entry["name"],
                f"{entry['kind']} {entry['dtype']} {tuple(entry['shape'])}",
                entry.get("value", ""),
                entry["sha256"],
            )
            for entry in self._document["results"]
        ]
        return table(f"Record of {self.made}", rows, ("name", "what", "value", "SHA-256"))

    def dumps(self) -> str:
        """Return the record as JSON, with the SHA-256 of all of it."""
        document = dict(self._document)
        if not self._is_sealed:
            document["sha256"] = document_sha256(document)
        return json.dumps(document, indent=2) + "\n"

    def write(self, path: str | os.PathLike[str], /) -> None:
        """Write the record to a file that is not there yet; nothing is left if that fails.

        Raises
        ------
        FileExistsError
            If the file is there: a record is not overwritten.
        """
        write_whole(Path(path), self.dumps())

    # --- Verifying

    def verify(
        self,
        results: Mapping[str, Any] | None = None,
        /,
        *,
        files: bool = True,
        on_read: Callable[[int], None] = _no_matter,
    ) -> list[Fault]:
        """Return everything that is not as it was recorded; an empty list if nothing is.

        The record is compared with its own checksums, then the files in it are read again, then
        the given results are compared with the recorded ones. Neither torch nor a GPU is needed.

        Parameters
        ----------
        results : mapping, optional
            Results of now by their names in the record.
        files : bool
            Whether the files are read.
        on_read : callable, optional
            Gets the number of bytes with each piece that was read.

        Examples
        --------
        >>> import numpy as np
        >>> from korvex import provenance
        >>> record = provenance.Record()
        >>> record.add("x", np.arange(6.0).reshape(2, 3))
        >>> print(*record.verify({"x": np.arange(6.0).reshape(3, 2)}))
        x: shape is [3, 2], and [2, 3] is recorded
        """
        faults = faults_of_document(json.loads(self.dumps()))
        entries = {entry["name"]: entry for entry in self._document["results"]}
        if files:
            of_files = [entry for entry in entries.values() if "source" in entry]
            faults += _files.file_faults(of_files, self.folder, on_read, differences)
        for name, value in (results or {}).items():
            if name in entries:
                faults += differences(name, entries[name], entry_of(value))
            else:
                faults.append(Fault("unknown", name, "no result of this name is recorded"))
        return faults

    def environment_changes(self) -> list[tuple[str, str | None, str | None]]:
        """Return name, recorded text and present text of what is not the same now.

        None stands for a line that is not there. A difference is no fault: a record is there to
        show that the result is the same elsewhere.
        """
        before, after = self.environment, environment()
        rows = [
            (name, before.get(name), after.get(name)) for name in dict.fromkeys([*before, *after])
        ]
        return [row for row in rows if row[1] != row[2]]


def loads(text: str | bytes, /, *, folder: str | os.PathLike[str] = ".") -> Record:
    """Read a record from its text.

    Only the form is looked at: `Record.verify` tells whether the content is as it was recorded.

    Parameters
    ----------
    text : str or bytes
    folder : path, optional
        Where paths of files in the record start.

    Raises
    ------
    RecordError
        If the text is no record, or one of another version.

    Examples
    --------
    >>> from korvex import provenance
    >>> text = provenance.Record().dumps()
    >>> provenance.loads(text).verify()
    []
    >>> provenance.loads(text.replace('"version": 1', '"version": 2'))
    Traceback (most recent call last):
    ...
    korvex.provenance.RecordError: version 2 of the format, and this korvex reads version 1
    """
    return Record._of(parsed(text), Path(folder))


def load(path: str | os.PathLike[str], /) -> Record:
    """Read a record from a file; paths in it start at its folder.

    Raises
    ------
    RecordError
        If the file is no record, or one of another version.
    """
    place = Path(path)
    return loads(place.read_bytes(), folder=place.parent)
