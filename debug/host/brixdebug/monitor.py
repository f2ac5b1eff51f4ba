"""What is switched on: the one user of `sys.monitoring` and of the native filter here.

Two tool ids are taken while a debugger has something to wait for:

* the filter's.  Its callbacks are native (`CInitialCallback`); what they let
  through arrives in the second callbacks of `reporting`.
* the raiser's, the id of debuggers.  No exception leaves a native callback, yet a
  debugger's `quit` has to raise one in the program.  The raiser has the same
  events switched on and no callback, which costs nothing.  The interpreter asks
  the tools one after another, the highest id first, and looks the callback up
  when it gets there: so a second callback that has an exception to raise registers
  the raiser's callback, and it is called for the very same event.

What is switched on under them:

    nothing                        no breakpoint is set and nothing is stepped
    PY_START, PY_RESUME, PY_THROW  while there are breakpoints, to find code that
                                   holds one; off again at each place without
    LINE, PY_START, JUMP           in code objects that hold a breakpoint
    RAISE, PY_UNWIND               while a thread is stepped
    LINE, JUMP, returns            in the code objects of frames that are stepped
    LINE, PY_START, JUMP           in all running code, while a thread is at the prompt

While all threads run freely the second callbacks switch off, place by place, what
is no breakpoint (DISABLE), and the program pays for nothing but the lines that have
one.  While a thread is stepped or at the prompt everything stays armed; the filter is
given the lines then (`fEnabledBpLinenos`) and answers for the others in native code.
"""

from __future__ import annotations

import _thread
import os
import sys

import optmonitoring

from brixdebug import files, internal
from brixdebug.breakpoints import BreakLines
from brixdebug.reporting import Reporter
from brixdebug.stops import NOWHERE
from brixdebug.suspension import Suspension, thread_id_of

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterable
    from types import CodeType, FrameType
    from typing import Any

    from optmonitoring import CInitialCallback, CPerCodeObject

    from brixdebug.engine import Bdb
    from brixdebug.stops import StopState

TOOL_NAME = "brixdebug"
RAISER_TOOL_ID = sys.monitoring.DEBUGGER_ID
FILTER_TOOL_IDS = (4, 3)        # the first that is free; above the raiser's

_events = sys.monitoring.events

_FIND_EVENTS = _events.PY_START | _events.PY_RESUME | _events.PY_THROW
_UNWIND_EVENTS = _events.RAISE | _events.PY_UNWIND
_BREAK_LOCAL_EVENTS = _events.LINE | _events.PY_START | _events.JUMP
_STEP_LOCAL_EVENTS = (_events.LINE | _events.JUMP | _events.PY_RETURN | _events.PY_YIELD
                      | _events.STOP_ITERATION)
# Events that cannot be switched off at one place.
_LASTING_EVENTS = _events.PY_THROW | _events.PY_UNWIND | _events.RAISE


class MonitorError(RuntimeError):
    """The events cannot be had; the text is for the user."""


class Monitor:
    """Routes events to the one debugger that traces now, and switches on what it needs."""

    def __init__(self) -> None:
        self.debugger: Bdb | None = None
        self.reporter = Reporter(self, RAISER_TOOL_ID)
        self.break_lines = BreakLines(self)
        self.suspension = Suspension(self)
        self.switching: Any = _thread.RLock()                 # around changes of what is switched on
        self._filter_tool_id: Any = None                      # None: no tool id is taken
        self._initial_callbacks: dict[int, CInitialCallback] = {}
        self._local_events: dict[Any, int] = {}               # record -> local events that are on
        self._stepped: dict[CPerCodeObject, int] = {}         # record -> local events for stepping
        self._global_events = 0
        self._raiser_events = 0
        self._any_stops_anywhere = False
        self._needs_changed = False
        self.is_idle = True                   # all threads run freely
        self.epoch = 0                        # counts the times when places were armed again
        os.register_at_fork(after_in_child=self._after_fork_in_child)

    # -- for debuggers -------------------------------------------------------------

    def start(self, debugger: Bdb) -> None:
        """`debugger` gets the events from now on."""
        with self.switching:
            self.debugger = debugger
            try:
                self._share(debugger, list(debugger.breaks))
            except MonitorError:
                self.debugger = None
                self._release()
                raise

    def stop(self, debugger: Bdb) -> None:
        """`debugger` gets no more events; everything that was taken is given back."""
        if self.debugger is not debugger or self.suspension.is_ending_all:
            return            # the process ends, and its other threads have still to be told
        with self.switching:
            self.debugger = None
            for state in debugger.stop_states.all():
                state.stepped.clear()
            if not self.reporter.is_busy:     # else when the event ends: it may have to raise
                self._release()

    def needs_changed(self, debugger: Bdb | None) -> None:
        """What stops the threads of `debugger` has changed."""
        if debugger is None or self.debugger is not debugger:
            return
        if self.reporter.is_busy:
            self._needs_changed = True        # looked at when the event ends
        else:
            self.refresh()

    def breaks_changed(self, debugger: Bdb, filename: str) -> None:
        """The breakpoints of `filename` (a canonic name) in `debugger` have changed."""
        if self.debugger is not debugger:
            return
        with self.switching:
            self._share(debugger, [filename])

    def _share(self, debugger: Bdb, filenames: Iterable[str]) -> None:
        grown = False
        for filename in filenames:
            grown |= self.break_lines.share(debugger, filename)
        # Events first: what starts from here on is seen, and what has started is on a stack.
        self._refresh()
        if debugger.breaks:
            self._find_running_code(debugger.stop_states.own())
        if grown:
            self.rearm()

    def _find_running_code(self, state: StopState) -> None:
        """What a new record runs is the debugger's, the standard library's part of it too."""
        muted, state.is_muted = state.is_muted, True
        try:
            self.break_lines.find_running_code()
        finally:
            state.is_muted = muted

    def end_all_threads(self) -> None:
        """Every thread that is debugged gets `BdbQuit` at its next event."""
        self.suspension.end_all()

    def settle(self) -> None:
        """The end of an event: do what had to wait for it."""
        if self.debugger is None:
            with self.switching:
                self._release()
        elif self._needs_changed:
            self.refresh()

    # -- tool ids ------------------------------------------------------------------

    def _claim(self) -> None:
        if self._filter_tool_id is not None:
            return
        filter_tool_id = _free_filter_tool_id()
        sys.monitoring.use_tool_id(RAISER_TOOL_ID, TOOL_NAME)
        sys.monitoring.use_tool_id(filter_tool_id, TOOL_NAME + " filter")
        self._filter_tool_id = filter_tool_id
        self._install_hooks()
        if not self._initial_callbacks:
            for event, second_callback in self.reporter.callbacks.items():
                self._initial_callbacks[event] = optmonitoring.CInitialCallback(
                    event, second_callback, 0 if event & _LASTING_EVENTS else 1)
        for event, callback in self._initial_callbacks.items():
            sys.monitoring.register_callback(filter_tool_id, event, callback.Callback)
        self.reporter.register_raiser()

    def _install_hooks(self) -> None:
        optmonitoring.SetInternalPathnameDict(internal.pathname_table())
        optmonitoring.set_checksum_callback(files.checksum)
        optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            self.break_lines.on_new_code)
        self.suspension.install_hooks()

    def _remove_hooks(self) -> None:
        optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)
        optmonitoring.set_checksum_callback(None)
        self.suspension.remove_hooks()

    def _release(self) -> None:
        """Everything off and given back, and nothing remembered of breakpoints and steps."""
        self._needs_changed = False
        self._stepped = {}
        self._any_stops_anywhere = False
        self.is_idle = True
        self.break_lines.lines.clear()
        self.suspension.is_ending_all = False
        self.reporter.ended_thread_ids.clear()
        for record in list(self._local_events):
            record.fEnabledBpLinenos = None
            record.fSteppingEventsNeededCount = 0
        for per_thread in optmonitoring.CPerThread.GetAllPerThreads():
            per_thread.fSteppingEventsNeeded = False
        for per_file in optmonitoring.CPerFile.GetAllPerFiles():
            per_file.fBpSetByLineno.clear()
        self.suspension.forget_running_code()
        self._give_back()

    def _give_back(self) -> None:
        """The tool ids and all that is switched on under them."""
        if self._filter_tool_id is None:
            return
        self._set_events(0, 0)
        for record in list(self._local_events):
            self._set_local_events(record, 0)
        for event in self._initial_callbacks:
            sys.monitoring.register_callback(self._filter_tool_id, event, None)
            sys.monitoring.register_callback(RAISER_TOOL_ID, event, None)
        self._remove_hooks()
        sys.monitoring.free_tool_id(self._filter_tool_id)
        sys.monitoring.free_tool_id(RAISER_TOOL_ID)
        self._filter_tool_id = None
        # What was switched off at single places would stay off for the next user of the id.
        sys.monitoring.restart_events()

    # -- what is switched on ---------------------------------------------------------

    def is_line_off(self, code: CodeType, line: int | None) -> bool:
        """Nobody waits for this line of `code`."""
        if not self.is_idle:
            return False
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        return line not in self.break_lines.lines.get(record, ())

    def is_call_off(self, code: CodeType, line: int | None) -> bool:
        """Nobody waits for the start of just any function, nor for that of `code` at `line`.

        With its start switched off, a function on one line reports no line either.
        """
        if self._any_stops_anywhere or self.suspension.is_active:
            return False
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        return line not in self.break_lines.lines.get(record, ())

    def rearm(self) -> None:
        """Arm what was switched off place by place.  What is needed has to be written before."""
        self.epoch += 1
        sys.monitoring.restart_events()

    def refresh(self) -> None:
        """Switch on what is needed now, and nothing else."""
        with self.switching:
            self._refresh()

    def _refresh(self) -> None:
        self._needs_changed = False
        debugger = self.debugger
        if debugger is None:
            return
        busy = [] if debugger.quitting else \
            [state for state in debugger.stop_states.all() if not state.is_free]
        if not (busy or debugger.breaks or self.suspension.is_active):
            self._set_stepped({})
            self._any_stops_anywhere = False
            self._give_back()
            return
        self._claim()
        was_idle, self.is_idle = self.is_idle, not (busy or self.suspension.is_active)
        self._set_stepped(self._collect_all_stepped(debugger, busy))
        self._mark_threads({state.thread_id for state in busy if state.stops_anywhere})
        step_events = _UNWIND_EVENTS if busy else 0
        if self._any_stops_anywhere or self.suspension.is_ending_all:
            step_events |= _FIND_EVENTS
        find_events = _FIND_EVENTS if debugger.breaks or self.suspension.is_active else 0
        self._set_events(step_events | find_events, step_events)
        if was_idle != self.is_idle:
            self._change_idle()

    def _change_idle(self) -> None:
        """All threads run freely now, or no longer."""
        self.reporter.register_raiser()
        for record in list(self.break_lines.lines):
            self.apply(record)
        if not self.is_idle:
            self.rearm()

    def _collect_all_stepped(self, debugger: Bdb,
                             busy: list[StopState]) -> dict[CPerCodeObject, int]:
        """The code objects that have to be reported, each with its local events."""
        top_frames = sys._current_frames() if busy else {}
        for state in busy:
            self._collect_stepped(debugger, state, top_frames.get(state.thread_id))
        del top_frames                        # it holds the frame of this very call
        stepped: dict[CPerCodeObject, int] = {}
        for state in debugger.stop_states.all():
            if state not in busy:
                state.stepped.clear()
            for record, events in state.stepped.items():
                stepped[record] = stepped.get(record, 0) | events
        return stepped

    def _collect_stepped(self, debugger: Bdb, state: StopState, frame: FrameType | None) -> None:
        """Note the code objects of a thread that is being stepped.

        None is dropped before the thread runs freely again: a frame that was on the
        stack may be suspended now, and come back.
        """
        for wanted in (state.stopframe, state.returnframe):
            if wanted is None or wanted is NOWHERE:
                continue
            if wanted.f_trace is None:
                wanted.f_trace = debugger.trace_dispatch
            self._add_stepped(wanted, state)
        while frame is not None:
            if frame.f_trace == debugger.trace_dispatch:
                self._add_stepped(frame, state)
            frame = frame.f_back

    @staticmethod
    def _add_stepped(frame: FrameType, state: StopState) -> CPerCodeObject | None:
        """Note the code object of `frame`; None when that changes nothing, else its record."""
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame)
        if record is None or record.fIsInternal:
            return None
        events = state.stepped.get(record, 0) | _STEP_LOCAL_EVENTS
        if state.trace_opcodes and frame.f_trace_opcodes:
            events |= _events.INSTRUCTION
        if state.stepped.get(record) == events:
            return None
        state.stepped[record] = events
        return record

    def step_in(self, frame: FrameType, state: StopState) -> None:
        """The thread of `state` is being stepped, and `frame` is a frame to step."""
        with self.switching:
            record = self._add_stepped(frame, state)
            if record is not None:
                self._stepped[record] = self._stepped.get(record, 0) | state.stepped[record]
                self.apply(record)

    def _set_stepped(self, stepped: dict[CPerCodeObject, int]) -> None:
        before, self._stepped = self._stepped, stepped
        for record in before:
            if record not in stepped:
                self.apply(record)
        for record in stepped:
            self.apply(record)

    def _mark_threads(self, stepping_thread_ids: set[int]) -> None:
        """Tell the filter which threads see the start of every function."""
        begins = stepping_thread_ids and not self._any_stops_anywhere
        self._any_stops_anywhere = bool(stepping_thread_ids)
        for per_thread in optmonitoring.CPerThread.GetAllPerThreads():
            if thread_id_of(per_thread) not in stepping_thread_ids:
                per_thread.fSteppingEventsNeeded = False
        for thread_id in stepping_thread_ids:
            optmonitoring.CPerThread.GetPerThread(thread_id).fSteppingEventsNeeded = True
        if begins:
            self.rearm()

    def apply(self, record: CPerCodeObject) -> None:
        """Switch on in one code object what it needs now."""
        events = self._stepped.get(record, 0) | self.suspension.local_events(record)
        count = 1 if events else 0
        lines = self.break_lines.lines.get(record)
        # None lets every line through, to be switched off by the second callback.
        record.fEnabledBpLinenos = None if self.is_idle else lines
        if lines:
            events |= _BREAK_LOCAL_EVENTS
            if self.debugger is not None and self.debugger.wants_calls:
                count = 1
        if events:
            self._claim()
        record.fSteppingEventsNeededCount = count
        self._set_local_events(record, events)

    def _set_local_events(self, record: CPerCodeObject, events: int) -> None:
        if self._local_events.get(record, 0) == events:
            return
        if events:
            self._local_events[record] = events
        else:
            del self._local_events[record]
        code = record.fCodeObjectWeakRef()
        if code is not None:
            sys.monitoring.set_local_events(RAISER_TOOL_ID, code, events)
            sys.monitoring.set_local_events(self._filter_tool_id, code, events)

    def _set_events(self, events: int, raiser_events: int) -> None:
        if raiser_events != self._raiser_events:
            sys.monitoring.set_events(RAISER_TOOL_ID, raiser_events)
            self._raiser_events = raiser_events
        if events != self._global_events:
            sys.monitoring.set_events(self._filter_tool_id, events)
            self._global_events = events

    def set_any_suspended(self, value: int) -> None:
        """Whether threads have to look at their suspend locks."""
        for callback in self._initial_callbacks.values():
            callback.fAnySuspendThread = value

    # -- the raiser ----------------------------------------------------------------------

    def begin_raising(self, code: CodeType) -> None:
        """The raiser gets an event of the calling thread soon, which runs `code` or leaves it."""
        with self.switching:
            self._claim()
            sys.monitoring.set_events(RAISER_TOOL_ID, self._raiser_events | _UNWIND_EVENTS)
            sys.monitoring.set_local_events(
                RAISER_TOOL_ID, code,
                sys.monitoring.get_local_events(RAISER_TOOL_ID, code) | _STEP_LOCAL_EVENTS)
            self.rearm()

    def end_raising(self, code: CodeType) -> None:
        with self.switching:
            record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
            sys.monitoring.set_events(RAISER_TOOL_ID, self._raiser_events)
            sys.monitoring.set_local_events(RAISER_TOOL_ID, code,
                                            self._local_events.get(record, 0))

    # -- fork --------------------------------------------------------------------------

    def _after_fork_in_child(self) -> None:
        """Only the forking thread is left; locks of the others will never be released."""
        if not self.switching._is_owned():
            self.switching = _thread.RLock()
        self.reporter.keep_only_own()
        # The filter answers nothing in a child before it is told the new process id, so
        # nobody needs a lock before here.
        optmonitoring.UpdateThisProcessPid()
        self.suspension.forget_other_threads()
        if self.debugger is None:
            return
        self.debugger.stop_states.keep_only_own()
        if not self.debugger.follows_fork:
            self.stop(self.debugger)


def _free_filter_tool_id() -> int:
    """Find an id for the filter, and see to it that the raiser's is free, before any is taken."""
    taken = sys.monitoring.get_tool(RAISER_TOOL_ID)
    if taken is not None:
        raise MonitorError("the monitoring tool id %d (sys.monitoring.DEBUGGER_ID) is taken by %r; "
                           "stop that debugger first" % (RAISER_TOOL_ID, taken))
    for tool_id in FILTER_TOOL_IDS:
        if sys.monitoring.get_tool(tool_id) is None:
            return tool_id
    raise MonitorError("the monitoring tool ids %s are taken by %s; stop one of these tools first" % (
        " and ".join(str(tool_id) for tool_id in FILTER_TOOL_IDS),
        " and ".join(repr(sys.monitoring.get_tool(tool_id)) for tool_id in FILTER_TOOL_IDS)))


monitor = Monitor()
