# SPDX-License-Identifier: Apache-2.0
"""Writes a file as a whole or not at all."""

from __future__ import annotations

import errno
import os
from pathlib import Path
from tempfile import mkstemp


def write_whole(path: Path, text: str) -> None:
    """The file appears with all of its content, and never takes the place of another.

    Until then it has no name, where the file system can do that, so that whatever ends the process
    leaves nothing.
    """
    folder = path.parent
    try:
        descriptor, name = os.open(folder, os.O_TMPFILE | os.O_WRONLY, 0o666), None
    except OSError as error:
        if error.errno not in (errno.EOPNOTSUPP, errno.EISDIR, errno.EINVAL):
            raise
        descriptor, name = mkstemp(dir=folder, prefix=f".{path.name}.")
        os.fchmod(descriptor, 0o644)
    try:
        with os.fdopen(descriptor, "w", encoding="utf-8") as stream:
            stream.write(text)
            stream.flush()
            os.fsync(descriptor)
            # Python follows the link only where a descriptor is given, which a full path ignores.
            source = name or f"/proc/self/fd/{descriptor}"
            os.link(source, path, src_dir_fd=descriptor, follow_symlinks=True)
    finally:
        if name is not None:
            os.unlink(name)
