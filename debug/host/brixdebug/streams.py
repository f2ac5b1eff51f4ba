"""Where the prompt talks when the program's standard streams are not its own: under pytest, and in worker processes.

pytest takes the streams away from the tests that it runs.  At a stop they are given back,
until all threads run freely again: what is printed while one steps is seen, all else is
the test's.  Nothing of pytest is imported here; who runs it has it in `sys.modules`.
"""

from __future__ import annotations

import os
import stat
import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any


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


class PytestCapture:
    """What pytest has been told of a stop."""

    def __init__(self) -> None:
        self._is_off = False                  # we have switched the capture off
        self._is_entered = False              # the plugins know that a debugger is at work

    @staticmethod
    def suspend() -> bool:
        """The standard streams are the terminal's; False when they were already."""
        manager = _capture_manager()
        if not _is_capturing(manager):
            return False
        manager.suspend(in_=True)
        return True

    @staticmethod
    def resume() -> None:
        manager = _capture_manager()
        if manager is not None:
            manager.resume()

    def begin_stop(self, debugger: Any) -> None:
        """`debugger` is going to prompt."""
        if self.suspend():
            self._is_off = True
            debugger.message("")              # what pytest has printed ends in the middle of a line
        self._tell("pytest_enter_pdb", debugger, True)

    @property
    def is_begun(self) -> bool:
        """There is something for `end_stop` to do."""
        return self._is_off or self._is_entered

    def end_stop(self, debugger: Any) -> None:
        """All threads run freely from here on."""
        if self._is_off:
            self._is_off = False
            self.resume()
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
    parent_process = getattr(sys.modules.get("multiprocessing.process"), "parent_process", None)
    return parent_process is not None and parent_process() is not None


def _is_null(descriptor: int) -> bool:
    try:
        status = os.fstat(descriptor)
    except OSError:                           # closed
        return True
    return stat.S_ISCHR(status.st_mode) and status.st_rdev == os.stat(os.devnull).st_rdev


def check_terminal() -> None:
    """NoTerminal in a worker process that has nothing to read commands from."""
    if not _is_null(0):
        return
    if "PYTEST_XDIST_WORKER" in os.environ:
        raise NoTerminal("this is a worker of pytest-xdist, without a terminal: run pytest with -n 0")
    if is_worker_of_multiprocessing():
        raise NoTerminal("this process of multiprocessing has no terminal: its standard input, like that of "
                         "the process that started it, is the null device")
