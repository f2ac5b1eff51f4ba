"""What each thread was told to stop at: one record per thread, and attributes that reach it.

`bdb.Bdb` keeps one set of fields that say where to stop next, because it follows
one thread.  Here every thread has its own: `next` in one thread is not disturbed
by a breakpoint in another.  A thread that was told nothing runs freely.
"""

from __future__ import annotations

import operator
import sys
import threading
import types
import weakref

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any

    from optmonitoring import CPerCodeObject

    from brixdebug.decisions import Decision


class _Nowhere:
    """Stands for the frame that a freely running thread stops in: none at all."""

    f_code = types.SimpleNamespace(co_flags=0)


NOWHERE: Any = _Nowhere()


# Whether `bdb.Bdb` takes opcodes from any frame that wants them, and from no other.
_ASKS_FRAMES = sys.version_info < (3, 13)


class StopState:
    """The fields of `bdb.Bdb` that belong to one thread, with what they are at first."""

    botframe: FrameType | None = NOWHERE
    stopframe: FrameType | None = NOWHERE
    returnframe: FrameType | None = None
    stoplineno = -1
    frame_returning: FrameType | None = None
    enterframe: FrameType | None = None
    cmdframe: FrameType | None = None
    cmdlineno: int | None = None
    trace_opcodes: bool = _ASKS_FRAMES

    decision: Decision | None = None            # of the breakpoint that the event is reported for
    stopped_frame: FrameType | None = None      # the frame of the event, when it is one to stop at

    stops = 0                 # how often the thread has stopped for a watch
    error_to_raise: BaseException | None = None     # in the thread, at its next event

    is_muted = False          # the thread runs the debugger's own code, outside of an event

    # Where the thread stands at its gate, in an event that was not reported: a step does not end there.
    held_at: tuple[int, int] | None = None      # id of the frame, its instruction

    def __init__(self, thread_id: int) -> None:
        self.thread_id = thread_id
        # record of a code object -> local events for stepping
        self.stepped: dict[CPerCodeObject, int] = {}
        # Of frames; not in their `f_trace`, which is the program's own tracer's, and without
        # holding them, for that would keep their variables alive.
        self.traced: set[tuple[int, int]] = set()
        self._traced_by_opcodes: set[tuple[int, int]] = set()

    # For the time of an event, with `enterframe` set.

    def __enter__(self) -> None:
        """Nothing."""

    def __exit__(self, *exc_info: object) -> None:
        self.enterframe = None

    # -- frames whose events are reported while the thread is stepped ------------------

    def trace(self, frame: FrameType) -> None:
        """Have the lines, the return and the exceptions of `frame` reported."""
        self.traced.add(_key(frame))

    def untrace(self, frame: FrameType) -> None:
        self.traced.discard(_key(frame))
        self._traced_by_opcodes.discard(_key(frame))

    def untrace_all(self) -> None:
        self.traced.clear()
        self._traced_by_opcodes.clear()

    def traces(self, frame: FrameType, debugger: Any) -> bool:
        """A debugger may also have set `f_trace` itself, as with `sys.settrace`."""
        return (id(frame), id(frame.f_code)) in self.traced or frame.f_trace == debugger.trace_dispatch

    def trace_by_opcodes(self, frame: FrameType) -> None:
        self._traced_by_opcodes.add(_key(frame))

    def traces_opcodes(self, frame: FrameType, debugger: Any) -> bool:
        return self.trace_opcodes and (
            _key(frame) in self._traced_by_opcodes
            or frame.f_trace_opcodes and (_ASKS_FRAMES or frame.f_trace == debugger.trace_dispatch))

    # -- what the fields mean ------------------------------------------------------------

    @property
    def target(self) -> tuple[object, ...]:
        """All that says which events the thread needs."""
        return self.stopframe, self.returnframe, self.botframe, self.stoplineno == -1, self.trace_opcodes

    def steps_over(self, frame: FrameType) -> bool:
        """`next` in `frame` is what the thread was told already."""
        return self.stopframe is frame and self.returnframe is None and self.stoplineno == 0 \
            and self.trace_opcodes is _ASKS_FRAMES

    @property
    def is_free(self) -> bool:
        """Only breakpoints stop the thread."""
        return self.stoplineno == -1 and self.stopframe is not None \
            and self.stopframe is self.botframe

    def run_freely(self) -> None:
        """Stop at breakpoints only."""
        self.stopframe = self.botframe = NOWHERE
        self.returnframe = None
        self.stoplineno = -1

    def stop_anywhere(self) -> None:
        """Stop at the next event."""
        self.stopframe = self.returnframe = None
        self.stoplineno = 0

    def may_stop_in(self, frame: FrameType) -> bool:
        """More than breakpoints may stop the thread in `frame`."""
        return self.stopframe is None or self.stopframe is frame and self.stoplineno != -1

    @property
    def stops_anywhere(self) -> bool:
        """The thread stops at the next line, whatever code it is in."""
        return self.stopframe is None


def _key(frame: FrameType) -> tuple[int, int]:
    """Tells a frame from others that are alive; a later one at its address has other code, mostly."""
    return id(frame), id(frame.f_code)


class _OfThread(threading.local):
    """Keeps the record of a thread as long as the thread; made in each thread when that first asks."""

    def __init__(self, by_thread_id: dict[int, weakref.ref[StopState]], waiting: dict[int, StopState]) -> None:
        thread_id = threading.get_ident()
        # In this order, with `StopStates.of`: another thread may ask for this one's record at the same time.
        self.own = waiting.setdefault(thread_id, StopState(thread_id))
        self.reached = self.own               # by the attributes of the debugger, in this thread
        by_thread_id[thread_id] = weakref.ref(self.own)
        waiting.pop(thread_id, None)


class StopStates:
    """The records of all threads of one debugger."""

    def __init__(self) -> None:
        # Without a callback: that would be Python code at any moment, and reported.
        self._by_thread_id: dict[int, weakref.ref[StopState]] = {}
        self._waiting: dict[int, StopState] = {}  # made for a thread that has not asked yet
        self.of_thread = _OfThread(self._by_thread_id, self._waiting)

    def own(self) -> StopState:
        """The record of the calling thread."""
        return self.of_thread.own

    def reached(self) -> StopState:
        """The record that a debugger's attributes read and write now, in the calling thread."""
        return self.of_thread.reached

    @property
    def selected(self) -> StopState | None:
        """The record of another thread that attributes reach in the calling one; None: they reach its own."""
        of_thread = self.of_thread
        return None if of_thread.reached is of_thread.own else of_thread.reached

    @selected.setter
    def selected(self, state: StopState | None) -> None:
        of_thread = self.of_thread
        of_thread.reached = state or of_thread.own

    def of(self, thread_id: int) -> StopState:
        """The record of any thread."""
        if thread_id == threading.get_ident():
            return self.own()
        state = self._known(thread_id)
        if state is None:
            state = self._waiting.setdefault(thread_id, StopState(thread_id))
            known = self._known(thread_id)    # the thread may have asked meanwhile
            if known is not None and known is not state:
                self._waiting.pop(thread_id, None)
                state = known
        return state

    def _known(self, thread_id: int) -> StopState | None:
        """The record of a thread that has asked for it."""
        reference = self._by_thread_id.get(thread_id)
        return reference() if reference is not None else None

    def all(self) -> list[StopState]:
        """The records of all threads that live; forgets the others."""
        waiting = list(self._waiting)         # before the threads are listed: each of these had begun
        running = set(sys._current_frames())
        for thread_id in [each for each in waiting if each not in running]:
            self._waiting.pop(thread_id, None)
        states = list(self._waiting.values())
        for thread_id, reference in list(self._by_thread_id.items()):
            state = reference()
            if state is not None:
                states.append(state)
            else:
                newer = self._by_thread_id.pop(thread_id, None)
                if newer is not None and newer() is not None:      # a new thread has the id
                    self._by_thread_id.setdefault(thread_id, newer)
        return states

    def keep_only_own(self) -> None:
        """After a fork, in the child: the other threads are gone."""
        own = self.own()
        self.selected = None
        self._by_thread_id.clear()
        self._by_thread_id[own.thread_id] = weakref.ref(own)
        self._waiting.clear()


def per_thread(name: str) -> Any:
    """An attribute of a debugger that lives in the reached thread's record."""
    def write(debugger: Any, value: object) -> None:
        setattr(debugger.stop_states.of_thread.reached, name, value)

    # Read several times at each stop: by C code.
    return property(operator.attrgetter("stop_states.of_thread.reached." + name), write)
