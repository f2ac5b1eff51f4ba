"""Switches the native module's log on and off: one file for the module and the host."""

from __future__ import annotations

import contextlib
import io
import os
import threading

import optmonitoring
from brixbase import dlog

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable

_MASKS = {
    "other": optmonitoring.kLogOther,
    "filenames": optmonitoring.kLogFilenames,
    "core": optmonitoring.kLogCore,
    "breakpoints": optmonitoring.kLogBreakpoints,
    "exceptions": optmonitoring.kLogExceptions,
    "io": optmonitoring.kLogIO,
    "internal_failures": optmonitoring.kLogInternalFailures,
    "threading": optmonitoring.kLogThreading,
    "initial": optmonitoring.kLogInitialMonitoringCallbacks,
    "second": optmonitoring.kLogSecondMonitoringCallbacks,
}
_MASKS["all"] = sum(_MASKS.values())

DOMAINS = tuple(_MASKS)
DEFAULT_DOMAINS = ("core", "exceptions", "internal_failures")

_log_file: io.TextIOWrapper | None = None

current_mask = 0              # of the domains that `open_log` was given; 0 without a log

# The module drops what a thread logs while another one is writing.
_writing = threading.RLock()
_MOST_SECONDS = 1.0           # a thread that the interpreter's end has ended in a write never goes on


def _forget_writers() -> None:
    """In a forked child: another thread of the parent may have been writing."""
    global _writing
    _writing = threading.RLock()


os.register_at_fork(after_in_child=_forget_writers)


def breakpoints(text: Callable[[], str]) -> None:
    """Log in the domain "breakpoints"; `text` is called when somebody reads it."""
    if current_mask & optmonitoring.kLogBreakpoints:
        line = text()
        is_alone = _writing.acquire(timeout=_MOST_SECONDS)
        try:
            optmonitoring.dprintf(optmonitoring.kLogBreakpoints, line)
        finally:
            if is_alone:
                _writing.release()


def domain_mask(domains: Iterable[str]) -> int:
    """The module's log mask for names out of DOMAINS; ValueError names the unknown ones."""
    mask = 0
    unknown = []
    for name in domains:
        if name in _MASKS:
            mask |= _MASKS[name]
        else:
            unknown.append(name)
    if unknown:
        raise ValueError("unknown log domain %s; known: %s"
                         % (", ".join(map(repr, unknown)), ", ".join(DOMAINS)))
    return mask


def parse_domains(text: str) -> tuple[str, ...]:
    """The names in a text like "core,filenames"."""
    return tuple(name.strip() for name in text.split(",") if name.strip())


def open_as_asked(path: str | None, domains: str | None) -> None:
    """What the options `--log FILE` and `--log-domains NAMES` ask for; ValueError or OSError when it cannot be."""
    if path is not None:
        open_log(path, DEFAULT_DOMAINS if domains is None else parse_domains(domains))
    elif domains is not None:
        raise ValueError("--log-domains goes with --log FILE")


def is_open() -> bool:
    return _log_file is not None


def open_log(path: str, domains: Iterable[str] = DEFAULT_DOMAINS) -> None:
    """Log what belongs to `domains` at the end of the file `path`.

    Raises ValueError for an unknown domain and OSError for a file that cannot be
    written; the log stays as it was then.
    """
    global _log_file, current_mask
    mask = domain_mask(domains)
    opened = _open(path)
    close_log()
    _log_file = opened
    current_mask = mask
    dlog.SetLogFile(opened)
    optmonitoring.set_dprintf_mask(mask)
    # The descriptor serves the places where no Python code may run.
    optmonitoring.set_dprintf_file(opened, opened.fileno(), 0)


def close_log() -> None:
    """Back to the state before `open_log`; nothing when there is no log."""
    global _log_file, current_mask
    if _log_file is None:
        return
    current_mask = 0
    optmonitoring.set_dprintf_file(None, -1, 0)
    optmonitoring.set_dprintf_mask(domain_mask(DEFAULT_DOMAINS))
    dlog.SetLogFile(None)
    descriptor = _log_file.fileno()
    _log_file.close()
    _log_file = None
    with contextlib.suppress(OSError):    # the program has closed all descriptors
        os.close(descriptor)


def _open(path: str) -> io.TextIOWrapper:
    """An unbuffered text file: nothing is lost on kill, nothing is locked across fork.

    A forked child can neither write its parent's lines again nor wait for a lock
    that another thread of the parent had.  Writing is native code, without a call
    of a Python function.  The file does not own the descriptor, so there is no
    warning about a log that is still open when the process ends.
    """
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o666)
    return io.TextIOWrapper(io.FileIO(descriptor, "a", closefd=False), encoding="utf-8",
                            errors="backslashreplace", write_through=True)
