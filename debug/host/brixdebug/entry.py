"""The ways into the debugger from inside a program: `set_trace`, `breakpoint()`, and what `pdb` has for that.

One debugger answers all of them: the one that has the process's events, else the one that
was entered last.  Two cannot share a process, so what stands in `pdb` under these names is
ours from the moment on that a debugger of this package gets events: `breakpoint()` and
`pdb.set_trace()` are looked up there.  What somebody else has put there stays, and so do
`sys.breakpointhook` and PYTHONBREAKPOINT.
"""

from __future__ import annotations

import importlib.util
import pdb
import sys
import types

from brixdebug import compat, ipython, streams
from brixdebug.debugger import Debugger
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterable
    from typing import Any

KEEPS_LAST_DEBUGGER = hasattr(pdb.Pdb, "_last_pdb_instance")      # what was named at its prompt is there again


def _is_pdbs_own(function: object) -> bool:
    return isinstance(function, types.FunctionType) and function.__globals__ is vars(pdb)


def standard(name: str) -> Any:
    """The function of `pdb`, also when somebody has put one of his own in its place."""
    function = getattr(pdb, name)
    if _is_pdbs_own(function):
        return function
    spec: Any = importlib.util.find_spec("pdb")
    fresh = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(fresh)
    return compat.rebind(getattr(fresh, name), **vars(pdb))


def _rebound(name: str) -> Any:
    return compat.rebind(standard(name), **PDB_NAMES)


# pdb's own functions, which make a Debugger where they made a Pdb.
PDB_NAMES: dict[str, Any] = {"Pdb": Debugger}
if hasattr(pdb, "_post_mortem"):
    PDB_NAMES["_post_mortem"] = _rebound("_post_mortem")
PDB_NAMES["post_mortem"] = post_mortem = _rebound("post_mortem")

pm = _rebound("pm")
run = _rebound("run")
runeval = _rebound("runeval")
runcall = _rebound("runcall")
runctx = compat.rebind(standard("runctx"), run=run)


def _debugger() -> Any:
    """The debugger to be entered; None at the end of the program, which the user has asked for."""
    traced: Any = monitor.debugger
    if traced is not None:
        return None if traced.quitting else traced
    last = getattr(Debugger, "_last_pdb_instance", None) if KEEPS_LAST_DEBUGGER else None
    if isinstance(last, Debugger):
        return last
    kind = ipython.debugger_class(Debugger) if ipython.is_running() else Debugger
    # In a run of tests `quit` ends the run, and nothing that has to be asked for.
    mode = None if streams.exit_of_pytest() else "inline"
    debugger = kind(mode=mode, colorize=True) if KEEPS_LAST_DEBUGGER else kind()
    debugger.gives_way = True
    return debugger


def set_trace(*, header: str | None = None, commands: Iterable[str] | None = None) -> None:
    """Enter the debugger at the caller's place.

    `header` is printed before; `commands` are run at the prompt as if they stood in a
    .pdbrc file.  At the debugger's own prompt, and in a condition, nothing happens.
    """
    debugger = _debugger()
    if not isinstance(debugger, Debugger):
        if debugger is not None:
            debugger.set_trace(sys._getframe().f_back)        # of an engine without a prompt
        return
    if header is not None:
        debugger.message(header)
    debugger.set_trace(sys._getframe().f_back, commands=commands)


if sys.version_info >= (3, 14):
    async def set_trace_async(*, header: str | None = None,
                              commands: Iterable[str] | None = None) -> None:
        """`set_trace` for a coroutine, to be awaited: at the prompt `await` may be used then."""
        debugger = _debugger()
        if isinstance(debugger, Debugger):
            if header is not None:
                debugger.message(header)
            await debugger.set_trace_async(sys._getframe().f_back, commands=commands)
        elif debugger is not None:
            debugger.set_trace(sys._getframe().f_back)        # of an engine without a prompt


def help() -> None:
    """Show the text of this package, and then that of `pdb`."""
    import pydoc
    pydoc.pager("%s\n\n%s" % (sys.modules["brixdebug"].__doc__, pdb.__doc__))


_STANDARD_CLASS = pdb.Pdb
_OURS: dict[str, Any] = {name: function for name, function in list(globals().items())
                         if name in ("set_trace", "set_trace_async", "post_mortem", "pm",
                                     "run", "runeval", "runcall", "runctx")}


def take_over() -> None:
    """What stands in `pdb` is ours from now on, but for what is somebody else's."""
    for name, function in _OURS.items():
        if _is_pdbs_own(getattr(pdb, name, None)):
            setattr(pdb, name, function)
    if pdb.Pdb is _STANDARD_CLASS:
        pdb.Pdb = Debugger            # type: ignore[misc]


Debugger.on_start = staticmethod(take_over)
