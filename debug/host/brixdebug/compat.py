"""What the standard debugger's classes need so that their events can come from elsewhere.

From 3.14 on `bdb.Bdb` switches its events on and off through two methods,
`start_trace` and `stop_trace`.  Before that it calls `sys.settrace` in six
methods.  `TraceBase` gives every version the two methods: four of the six are run as
they are, with a stand-in for `sys` among their globals.  The methods of `bdb.Bdb` that
write to the fields of frames (`f_trace` and its like), two of the six among them, have
replacements: those fields belong to the program's own tracers.
"""

from __future__ import annotations

import bdb
import sys
import types

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any

    from brixdebug.stops import StopStates


def rebind(function: Any, **names: object) -> Any:
    """A copy of `function` that sees `names` in place of its own globals of these names."""
    copy = types.FunctionType(function.__code__, {**function.__globals__, **names},
                              function.__name__, function.__defaults__, function.__closure__)
    copy.__kwdefaults__ = function.__kwdefaults__
    copy.__doc__ = function.__doc__
    copy.__qualname__ = function.__qualname__
    return copy


# Whether `f_locals` of a function's frame is a copy of its variables.
LOCALS_ARE_COPIES = sys.version_info < (3, 13)

if sys.version_info >= (3, 13):
    def take_locals(frame: FrameType) -> None:
        """Nothing: `frame.f_locals` is the variables themselves."""

    def give_locals_back(frame: FrameType, is_last: bool = True) -> None:
        """Nothing, as before."""
else:
    import contextlib
    import ctypes
    import operator
    import warnings

    _locals_to_fast = ctypes.PYFUNCTYPE(None, ctypes.py_object, ctypes.c_int)(
        ("PyFrame_LocalsToFast", ctypes.pythonapi))
    _OPTIMIZED = 1                # a function's code: its frame's f_locals is a copy of the variables
    _OWN_REFERENCES = 3           # the frame's, the name's and that of the call that counts

    # id of a frame -> what `f_locals` is for it, and a copy of that as it was taken
    _taken: dict[int, tuple[dict[str, Any], dict[str, Any]]] = {}

    def take_locals(frame: FrameType) -> None:
        """Let `frame.f_locals` be what the variables are now, before it may be written to."""
        if frame.f_code.co_flags & _OPTIMIZED:
            variables = frame.f_locals
            _taken[id(frame)] = variables, dict(variables)

    def _is_same(variables: dict[str, Any], before: dict[str, Any]) -> bool:
        return len(variables) == len(before) and all(map(operator.is_, variables, before)) \
            and all(map(operator.is_, variables.values(), before.values()))

    def _warn_of_deleted(frame: FrameType, variables: dict[str, Any], before: dict[str, Any]) -> None:
        """A deleted variable becomes None; the interpreter would name the line of whoever asks for that."""
        for name in before:
            if name not in variables and name in frame.f_code.co_varnames and name not in frame.f_code.co_cellvars:
                variables[name] = None
                with contextlib.suppress(RuntimeWarning):
                    warnings.warn_explicit("assigning None to unbound local %r" % name, RuntimeWarning,
                                           frame.f_code.co_filename, frame.f_lineno or 0,
                                           module=frame.f_globals.get("__name__"),
                                           registry=frame.f_globals.setdefault("__warningregistry__", {}))

    def give_locals_back(frame: FrameType, is_last: bool = True) -> None:
        """Let the variables be what `frame.f_locals` is now, as after a function of `sys.settrace`.

        `is_last` is False where they will be given back once more: what `frame.f_locals` is has to stay whole.
        """
        # In a module or a class f_locals is the variables; those of its comprehensions are not in it, and would be lost.
        code = frame.f_code
        if not code.co_flags & _OPTIMIZED:
            return
        variables, before = _taken.pop(id(frame), ({}, None))
        if before is None or not _is_same(variables, before):
            _warn_of_deleted(frame, variables, before or {})
            _locals_to_fast(frame, 1)
            variables = frame.f_locals
        if not is_last:
            take_locals(frame)
            return
        # No copy is to keep objects alive past their last use, unless it is the program's too.
        if sys.getrefcount(variables) <= _OWN_REFERENCES:
            for name in code.co_varnames + code.co_cellvars + code.co_freevars:
                variables.pop(name, None)


def give_changes_back(frame: FrameType, variables: Any, before: dict[str, Any]) -> None:
    """Let the variables of any frame be what was assigned to `variables`, the table of their values.

    `before` is what that held before.  Only what differs is given back: the thread of the
    frame may have gone on meanwhile.
    """
    changed = {name: value for name, value in variables.items()
               if name not in before or before[name] is not value}
    deleted = before.keys() - variables.keys()
    if not (changed or deleted):
        return
    take_locals(frame)                        # the same table, with the values of now
    variables.update(changed)
    for name in deleted:
        variables.pop(name, None)
    give_locals_back(frame)


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
_STOPS_AT_INSTRUCTIONS = hasattr(bdb.Bdb, "set_stepinstr")


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
        def set_stepinstr(self) -> None: ...
        botframe: Any
        enterframe: Any
        frame_returning: Any
        trace_opcodes: Any
        stop_states: StopStates

    # -- what is traced, without a word in the frames ----------------------------------

    def set_trace(self, frame: FrameType | None = None) -> None:
        """Start debugging from `frame`, the caller's when it is None."""
        if HAS_TRACE_METHODS and self.enterframe is not None:
            return                            # in an event already
        self.stop_trace()
        entered = frame or sys._getframe().f_back
        self.reset()
        state = self.stop_states.own()
        state.untrace_all()
        frame = self.enterframe = entered
        while frame is not None:
            state.trace(frame)
            self.botframe = frame
            frame = frame.f_back
        if _STOPS_AT_INSTRUCTIONS:
            self.set_stepinstr()
        else:
            self.set_step()
        self.enterframe = None
        self.start_trace()

    def set_continue(self) -> None:
        """Stop at breakpoints only."""
        self._set_stopinfo(self.botframe, None, -1)
        if not self.breaks:
            self.stop_trace()

    def _set_caller_tracefunc(self, current_frame: FrameType) -> None:
        caller = current_frame.f_back
        if caller is not None and not (HAS_TRACE_METHODS and caller is self.botframe):
            self.stop_states.reached().trace(caller)

    if _STOPS_AT_INSTRUCTIONS:
        def _set_trace_opcodes(self, trace_opcodes: bool) -> None:
            if trace_opcodes == self.trace_opcodes:
                return
            self.trace_opcodes = trace_opcodes
            state = self.stop_states.reached()
            frame = self.enterframe if trace_opcodes else None
            while frame is not None:
                state.trace_by_opcodes(frame)
                frame = frame.f_back if frame is not self.botframe else None
    else:
        def set_step(self) -> None:
            if self.frame_returning is not None:
                self._set_caller_tracefunc(self.frame_returning)
            self._set_stopinfo(None, None)

    if hasattr(bdb.Bdb, "set_enterframe"):
        def set_enterframe(self, frame: FrameType) -> Any:
            state = self.stop_states.of_thread.own
            state.enterframe = frame
            return state                      # which forgets it at the end of the block

    # -- events on and off ----------------------------------------------------------------

    if HAS_TRACE_METHODS:
        _no_tracer = _NoTracer()

        @property
        def monitoring_tracer(self) -> _NoTracer:
            return self._no_tracer

        @monitoring_tracer.setter
        def monitoring_tracer(self, tracer: object) -> None:
            pass               # the standard backends are not used, whichever was asked for

        def restart_events(self) -> None:
            """Nothing: what is needed is switched on when it changes."""
    else:
        for _name in ("set_quit", "run", "runeval", "runcall"):
            locals()[_name] = rebind(getattr(bdb.Bdb, _name), sys=sys_with_trace_methods)
        del _name

        def start_trace(self) -> None:
            raise NotImplementedError

        def stop_trace(self) -> None:
            raise NotImplementedError
