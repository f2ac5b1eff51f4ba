"""Contents of source files: the checksum that the native module keeps for each file, and copies found by it.

A checksum says which files are copies of each other.  It never makes two files
one: breakpoints go by the canonical pathname, so ask the module for that without
a checksum.  `get_canonical_pathname(pathname, checksum)` answers with the name of
the first file that had the same text when it does not know `pathname` yet.
"""

from __future__ import annotations

import os
import stat

import optmonitoring

try:
    from _blake2 import blake2b   # `hashlib` loads a library of cryptography as well, which takes a while
except ImportError:
    from hashlib import blake2b

_DIGEST_BYTES = 16
_CHUNK_BYTES = 1 << 18


def checksum(pathname: str) -> str | None:
    """Hash of the file's bytes as hexadecimal text, None for what cannot be read.

    The module calls this on the program's thread for every new source file, so it
    raises nothing and waits for nothing: a name may belong to a pipe or a device.
    """
    try:
        with open(pathname, "rb", buffering=0, opener=_open_without_waiting) as file:
            if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
                return None
            digest = blake2b(digest_size=_DIGEST_BYTES)
            while chunk := file.read(_CHUNK_BYTES):
                digest.update(chunk)
            return digest.hexdigest()
    except Exception:             # no such file, or a name that cannot be one
        return None


def short_name(filename: str) -> str:
    """The file with its folder: what says which library it is of."""
    return os.sep.join(filename.split(os.sep)[-2:])


def _open_without_waiting(pathname: str, flags: int) -> int:
    return os.open(pathname, flags | os.O_NONBLOCK | os.O_NOCTTY)


def update_checksums() -> None:
    """Have the module read all files that it knows: it does so for none while the program runs."""
    optmonitoring.set_checksum_callback(checksum)
    try:
        for per_file in optmonitoring.CPerFile.GetAllPerFiles():
            per_file.UpdateChecksum()
    finally:
        optmonitoring.set_checksum_callback(None)


def duplicates() -> list[list[str]]:
    """Groups of canonical pathnames of files with equal contents, as sorted lists.

    Known are the files whose checksums are: see `update_checksums`.
    """
    # By the records' own checksums: the module's index by checksum keeps a file
    # that has changed under its old one.
    groups: dict[str, list[str]] = {}
    for per_file in optmonitoring.CPerFile.GetAllPerFiles():
        if per_file.fChecksum is not None:
            groups.setdefault(per_file.fChecksum, []).append(per_file.fCanonicalPathname)
    return sorted(sorted(names) for names in groups.values() if len(names) > 1)
