"""The prompt of IPython on our debugger: `--ipython`, and `set_trace` in a program that IPython runs.

Imported only where one of these asks for it.
"""

from __future__ import annotations

import _thread
import importlib
import sys

from brixdebug import internal, terminal
from brixdebug.debugger import Debugger
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any


class _Result:
    """What a call in a thread of its own has returned or raised."""

    def __init__(self, function: Callable[[], Any]) -> None:
        self._function = function
        self._value: Any = None
        self._error: BaseException | None = None
        self._is_done = _thread.allocate_lock()
        self._is_done.acquire()
        _thread.start_new_thread(self._run, ())

    def _run(self) -> None:
        try:
            monitor.suspension.adopt_thread(takes_started=True)
            self._value = self._function()
        except BaseException as error:
            self._error = error
        finally:
            self._is_done.release()

    def result(self) -> Any:
        self._is_done.acquire()
        if self._error is not None:
            raise self._error
        return self._value


class _OwnThreads:
    """IPython reads its prompt in another thread, for that has no event loop: in one that is not held."""

    @staticmethod
    def submit(function: Callable[[], Any]) -> _Result:
        return _Result(function)


def _running_shell() -> Any:
    package = sys.modules.get("IPython")
    return package.get_ipython() if package is not None and hasattr(package, "get_ipython") else None


def is_running() -> bool:
    """True inside of a program that IPython runs in a terminal."""
    return any(each.__name__ == "TerminalInteractiveShell" for each in type(_running_shell()).__mro__)


def _adopt_history_thread() -> None:
    """It writes down what is typed, and is no part of the program that IPython runs."""
    thread = getattr(getattr(_running_shell(), "history_manager", None), "save_thread", None)
    if thread is not None and thread.ident is not None:
        monitor.suspension.adopt_lasting_thread(thread.ident)


def _make_shell() -> None:
    """What IPython's classes ask for their settings; made by them it has a thread that writes a history."""
    shells: Any = importlib.import_module("IPython.terminal.interactiveshell")
    if not shells.TerminalInteractiveShell.initialized():
        config: Any = importlib.import_module("traitlets.config").Config()
        config.HistoryManager.enabled = False
        programs_main = sys.modules["__main__"]
        shells.TerminalInteractiveShell.instance(config=config)
        sys.modules["__main__"] = programs_main


def debugger_class(base: type[Debugger]) -> Any:
    """`base` with IPython's prompt; ImportError where there is no IPython."""
    core: Any = importlib.import_module("IPython.core.debugger")
    standard: Any = importlib.import_module("IPython.terminal.debugger")

    _make_shell()
    for module in core, standard:
        internal.add_internal_file(module.__file__)
    terminal.command_loops.add(standard.TerminalPdb.cmdloop.__code__)

    class IPythonDebugger(base, standard.TerminalPdb):        # type: ignore[misc, valid-type]
        def __init__(self, *args: Any, **kwargs: Any) -> None:
            super().__init__(*args, **kwargs)
            self.thread_executor = _OwnThreads()
            _adopt_history_thread()

    return IPythonDebugger
