"""What the standard debugger's classes need so that their events can come from elsewhere.

From 3.14 on `bdb.Bdb` switches its events on and off through two methods,
`start_trace` and `stop_trace`.  Before that it calls `sys.settrace` in six
methods.  `TraceBase` gives every version the two methods: the six are run as
they are, with a stand-in for `sys` among their globals.
"""

from __future__ import annotations

import bdb
import sys
import types

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any


def rebind(function: Any, **names: object) -> Any:
    """A copy of `function` that sees `names` in place of its own globals of these names."""
    copy = types.FunctionType(function.__code__, {**function.__globals__, **names},
                              function.__name__, function.__defaults__, function.__closure__)
    copy.__kwdefaults__ = function.__kwdefaults__
    copy.__doc__ = function.__doc__
    copy.__qualname__ = function.__qualname__
    return copy


if sys.version_info >= (3, 13):
    def take_locals(frame: FrameType) -> None:
        """Nothing: `frame.f_locals` is the variables themselves."""

    give_locals_back = take_locals
else:
    import ctypes

    def take_locals(frame: FrameType) -> None:
        """Let `frame.f_locals` be what the variables are now, before it may be written to."""
        frame.f_locals

    def give_locals_back(frame: FrameType) -> None:
        """Let the variables be what `frame.f_locals` is now, as after a function of `sys.settrace`."""
        ctypes.pythonapi.PyFrame_LocalsToFast(ctypes.py_object(frame), 1)


class _SysWithTraceMethods:
    """`sys` for methods of a debugger: `settrace` goes to the debugger itself."""

    def __getattr__(self, name: str) -> Any:
        return getattr(sys, name)

    def settrace(self, function: object) -> None:
        debugger = sys._getframe(1).f_locals["self"]
        if function is None:
            debugger.stop_trace()
        else:
            debugger.start_trace()


sys_with_trace_methods = _SysWithTraceMethods()

HAS_TRACE_METHODS = hasattr(bdb.Bdb, "start_trace")


class _NoTracer:
    """Takes the place of the tracer that 3.14's `Bdb` may keep: there is none, and nothing to update."""

    def __bool__(self) -> bool:
        return False

    def update_local_events(self, frame: FrameType | None = None) -> None:
        pass

    def restart_events(self) -> None:
        pass

    def disable_current_event(self) -> None:
        pass


class TraceBase(bdb.Bdb):
    """`bdb.Bdb` whose events are switched by `start_trace` and `stop_trace` on every version."""

    if TYPE_CHECKING:             # the methods between the standard classes that the engine stands between
        def _set_stopinfo(self, stopframe: FrameType | None, *args: Any, **kwargs: Any) -> None: ...
        def _add_to_breaks(self, filename: str, lineno: int) -> None: ...
        def _prune_breaks(self, filename: str, lineno: int) -> None: ...

    if HAS_TRACE_METHODS:
        _no_tracer = _NoTracer()

        @property
        def monitoring_tracer(self) -> _NoTracer:
            return self._no_tracer

        @monitoring_tracer.setter
        def monitoring_tracer(self, tracer: object) -> None:
            pass               # the standard backends are not used, whichever was asked for
    else:
        for _name in ("set_trace", "set_continue", "set_quit", "run", "runeval", "runcall"):
            locals()[_name] = rebind(getattr(bdb.Bdb, _name), sys=sys_with_trace_methods)
        del _name

        def start_trace(self) -> None:
            raise NotImplementedError

        def stop_trace(self) -> None:
            raise NotImplementedError
