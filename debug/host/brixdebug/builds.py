"""Which machine a build of the module is for: the loader says of a build for another one that there is no such file, or
that a library has an invalid header."""

import os
import sys

_PROCESSORS = {62: "x86_64", 183: "aarch64"}       # e_machine of an ELF file
_MACHINE_AT = 18                                    # its offset, 2 bytes
_GLIBC = b"\0libc.so.6\0"                            # as a file that is linked with it names it


def machine_of_file(path: str) -> str | None:
    """What the file is built for, such as `aarch64-linux-gnu`; None: that cannot be found out."""
    try:
        with open(path, "rb") as file:
            data = file.read()
    except OSError:
        return None
    processor = _PROCESSORS.get(int.from_bytes(data[_MACHINE_AT:_MACHINE_AT + 2], "little"))
    if not data.startswith(b"\x7fELF") or not processor:
        return None
    return "%s-linux-%s" % (processor, "gnu" if _GLIBC in data else "musl")


def machine_of_interpreter() -> str:
    return getattr(sys.implementation, "_multiarch", "") or os.uname().machine + "-linux-gnu"


def check(path: str | None) -> None:
    """An ImportError that names both machines when the module in this file is for another one and does not load here."""
    built_for = machine_of_file(path) if path else None
    if built_for is None or built_for == machine_of_interpreter():
        return
    try:                # an interpreter may be wrong about itself
        import optmonitoring  # noqa: F401
    except ImportError as error:
        raise ImportError("%s is for %s, and this Python is for %s; install the wheel for this one"
                          % (path, built_for, machine_of_interpreter()), name="optmonitoring", path=path) from error
