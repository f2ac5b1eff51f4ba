"""Where the prompt talks when the program's standard streams are not its own: under pytest, and in worker processes.

pytest takes the streams away from the tests that it runs.  At a stop they are given back,
until all threads run freely again: what is printed while one steps is seen, all else is
the test's.  Nothing of pytest is imported here; who runs it has it in `sys.modules`.
"""

from __future__ import annotations

import functools
import os
import stat
import sys

from brixdebug import processes

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any, TextIO


class NoTerminal(RuntimeError):
    """There is nobody to ask at the place where the program wants to stop; the text says why."""


def _pytest_debugging() -> Any:
    """What pytest knows of debuggers; None when it does not run tests in this process."""
    debugging = getattr(sys.modules.get("_pytest.debugging"), "pytestPDB", None)
    return debugging if getattr(debugging, "_pluginmanager", None) is not None else None


def _capture_manager() -> Any:
    debugging = _pytest_debugging()
    return debugging._pluginmanager.getplugin("capturemanager") if debugging is not None else None


def _is_capturing(manager: Any) -> bool:
    if manager is None or not manager.is_capturing():
        return False
    for capture, name in ((getattr(manager, "_global_capturing", None), "is_started"),
                          (getattr(manager, "_capture_fixture", None), "_is_started")):
        if capture is not None and getattr(capture, name, bool)():
            return True
    return False


def _has_input(manager: Any) -> bool:
    """Whether it keeps standard input to itself, as it does between two tests, where it captures no output."""
    capture = getattr(manager, "_global_capturing", None)
    return getattr(capture, "in_", None) is not None and not getattr(capture, "_in_suspended", True)


def _take_input_back(manager: Any) -> None:
    """Undo that it was suspended between two tests, unless pytest captures again by itself."""
    if not _is_capturing(manager):
        manager.resume_global_capture()
        manager.suspend_global_capture(in_=False)


class PytestCapture:
    """What pytest knows of a stop."""

    def __init__(self) -> None:
        self._resume: Callable[[], object] | None = None      # we have switched the capture off
        self._is_entered = False              # the plugins know that a debugger is at work
        self.is_begun = False                 # there is something for `end_stop` to do: one of these

    @staticmethod
    def suspend() -> Callable[[], object] | None:
        """The standard streams are the terminal's: what undoes that, None when they were already."""
        manager = _capture_manager()
        if _is_capturing(manager):
            manager.suspend(in_=True)
            return manager.resume             # type: ignore[no-any-return]
        if _has_input(manager):
            manager.suspend_global_capture(in_=True)
            return functools.partial(_take_input_back, manager)
        return None

    def begin_stop(self, debugger: Any) -> None:
        """`debugger` is going to prompt."""
        if "_pytest.debugging" not in sys.modules:
            return
        resume = self.suspend()
        if resume is not None:
            self._resume = resume
            debugger.message("")              # what pytest has printed ends in the middle of a line
        try:
            self._tell("pytest_enter_pdb", debugger, True)
        finally:
            self.is_begun = self._resume is not None or self._is_entered

    def end_stop(self, debugger: Any) -> None:
        """All threads run freely from here on."""
        self.is_begun = False
        resume, self._resume = self._resume, None
        if resume is not None:
            resume()
        self._tell("pytest_leave_pdb", debugger, False)

    def _tell(self, hook: str, debugger: Any, is_entered: bool) -> None:
        """Tell the plugins: some of them limit the time of a test."""
        debugging = _pytest_debugging()
        if debugging is None or self._is_entered == is_entered or hasattr(debugger, "_pytest_capman"):
            return                            # pytest's own class does it itself
        self._is_entered = is_entered
        getattr(debugging._pluginmanager.hook, hook)(config=debugging._config, pdb=debugger)


capture = PytestCapture()


def exit_of_pytest() -> type[Exception] | None:
    """The class of exceptions that end a run of pytest; None when there is no run."""
    if _pytest_debugging() is None:
        return None
    kind: type[Exception] | None = getattr(sys.modules.get("_pytest.outcomes"), "Exit", None)
    return kind


def is_worker_of_multiprocessing() -> bool:
    """True in a process whose `sys.stdin` was put out of use by `multiprocessing`."""
    process = sys.modules.get("multiprocessing.process")
    if process is None:
        return False
    parent_process = getattr(process, "parent_process", None)
    return parent_process is not None and parent_process() is not None


def is_null(descriptor: int) -> bool:
    """True for a descriptor that nothing can be read from: the null device, or none."""
    try:
        status = os.fstat(descriptor)
    except OSError:                           # closed
        return True
    return stat.S_ISCHR(status.st_mode) and status.st_rdev == os.stat(os.devnull).st_rdev


def _controlling_terminal() -> int | None:
    """A descriptor of it; None where there is none, or where this process is in the background of it."""
    try:
        descriptor = os.open("/dev/tty", os.O_RDWR | os.O_CLOEXEC | os.O_NOCTTY)
    except OSError:
        return None
    try:
        if os.tcgetpgrp(descriptor) == os.getpgrp():
            return descriptor
    except OSError:
        pass
    os.close(descriptor)
    return None


def has_terminal() -> bool:
    """There is something to read commands from."""
    if not is_null(0):
        return True
    descriptor = _controlling_terminal()
    if descriptor is None:
        return False
    os.close(descriptor)
    return True


def open_input() -> TextIO:
    """What a child's prompt reads from, as its parent's does."""
    descriptor = _controlling_terminal() if is_null(0) else None
    return open(0 if descriptor is None else descriptor, closefd=descriptor is not None)


def is_put_out_of_use(file: Any) -> bool:
    """Somebody has made the null device the process's `sys.stdin`, and descriptor 0 is what it was."""
    try:
        return file.fileno() != 0 and is_null(file.fileno()) and not is_null(0)
    except (AttributeError, OSError, ValueError):
        return False


def check_terminal() -> None:
    """NoTerminal in a child process that has nothing to read commands from."""
    if not is_null(0):
        return
    if "PYTEST_XDIST_WORKER" in os.environ:
        raise NoTerminal("this is a worker of pytest-xdist, without a terminal: run pytest with -n 0")
    is_worker = is_worker_of_multiprocessing()
    if (is_worker or processes.is_followed()) and not has_terminal():
        raise NoTerminal("this process%s has no terminal: its standard input, like that of the process that "
                         "started it, is the null device" % (" of multiprocessing" if is_worker else ""))
