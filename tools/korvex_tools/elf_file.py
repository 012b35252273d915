# SPDX-License-Identifier: Apache-2.0
"""Reads from a 64-bit little-endian ELF shared object what it needs and what it exports.

Of what it needs: libraries, symbols, and the versions of libraries that these symbols name.
"""

import struct
from collections.abc import Iterator
from pathlib import Path
from typing import Any

_SECTION_DYNAMIC = 6
_SECTION_DYNAMIC_SYMBOLS = 11
_SECTION_NEEDED_VERSIONS = 0x6FFFFFFE
_TAG_NEEDED = 1
_TAG_RPATH = 15
_TAG_RUNPATH = 29
_BIND_LOCAL = 0
_MACHINES = {62: "x86_64", 183: "aarch64"}


class ElfFile:
    """Attributes: `machine`, `needed` (library names), `needed_versions`, `search_paths`.

    And names of symbols: `exported` and `imported`.
    """

    def __init__(self, path: Path) -> None:
        self._image = path.read_bytes()
        assert self._image[:6] == b"\x7fELF\x02\x01", f"{path} is no 64-bit little-endian ELF file"
        (machine,) = struct.unpack_from("<H", self._image, 0x12)
        self.machine = _MACHINES.get(machine, str(machine))
        self._sections = self._read_sections()
        self.needed = self._dynamic_strings(_TAG_NEEDED)
        self.search_paths = self._dynamic_strings(_TAG_RPATH, _TAG_RUNPATH)
        self.needed_versions = self._read_needed_versions()
        self.exported = self._read_symbols(defined=True)
        self.imported = self._read_symbols(defined=False)

    def _read_sections(self) -> list[tuple[Any, ...]]:
        """(name, type, flags, address, offset, size, link, info, alignment, entry size) each."""
        (table_offset,) = struct.unpack_from("<Q", self._image, 0x28)
        entry_size, count = struct.unpack_from("<HH", self._image, 0x3A)
        return [
            struct.unpack_from("<IIQQQQIIQQ", self._image, table_offset + index * entry_size)
            for index in range(count)
        ]

    def _records(self, section_type: int, layout: str) -> Iterator[tuple[tuple[Any, ...], int]]:
        """Each record of the sections of one type, with the offset of their string table."""
        for section in self._sections:
            if section[1] == section_type:
                strings_offset = self._sections[section[6]][4]
                contents = self._image[section[4] : section[4] + section[5]]
                for record in struct.iter_unpack(layout, contents):
                    yield record, strings_offset

    def _string(self, offset: int) -> str:
        return self._image[offset : self._image.index(b"\0", offset)].decode()

    def _dynamic_strings(self, *tags: int) -> list[str]:
        return [
            self._string(strings_offset + value)
            for (tag, value), strings_offset in self._records(_SECTION_DYNAMIC, "<qQ")
            if tag in tags
        ]

    def _read_symbols(self, defined: bool) -> list[str]:
        """Symbols that are not local, and defined here (their section is not 0) or elsewhere."""
        return sorted(
            self._string(strings_offset + name)
            for (name, info, _, section, _, _), strings_offset in self._records(
                _SECTION_DYNAMIC_SYMBOLS, "<IBBHQQ"
            )
            if (section != 0) == defined and info >> 4 != _BIND_LOCAL
        )

    def _read_needed_versions(self) -> list[str]:
        """As in "GLIBC_2.28": a chain of libraries, and from each a chain of versions."""
        found = set()
        for section in self._sections:
            if section[1] != _SECTION_NEEDED_VERSIONS:
                continue
            strings_offset, library, more = self._sections[section[6]][4], section[4], True
            while more:
                _, count, _, first, following = struct.unpack_from("<HHIII", self._image, library)
                version = library + first
                for _ in range(count):
                    _, _, _, name, step = struct.unpack_from("<IHHII", self._image, version)
                    found.add(self._string(strings_offset + name))
                    version += step
                library, more = library + following, following != 0
        return sorted(found)
