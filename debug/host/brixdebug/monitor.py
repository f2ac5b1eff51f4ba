"""The debugger that traces now, and what it needs to have switched on.

What its threads stop at, its breakpoints and the threads that are held come together
here, and are handed to `switches`.
"""

from __future__ import annotations

import os
import sys
import threading

import optmonitoring
from brixbase import dlog

from brixdebug import internal
from brixdebug.breakpoints import BreakLines
from brixdebug.decisions import Decisions
from brixdebug.exceptions import RAISED, UNCAUGHT, UNHANDLED, places_of_beginning, places_of_uncaught
from brixdebug.libraries import is_library
from brixdebug.locks import ARE_PARALLEL
from brixdebug.raising import Raiser
from brixdebug.records import record_of, thread_id_of
from brixdebug.returns import PassedReturns
from brixdebug.stops import NOWHERE
from brixdebug.suspension import Suspension, debugged_frames, own_thread_ids
from brixdebug.switches import STEP_LOCAL_EVENTS, MonitorError, Switches
from brixdebug.turn import Turn
from brixdebug.watching import Watches

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterable
    from types import CodeType, FrameType

    from optmonitoring import CPerCodeObject

    from brixdebug.protocol import TracedDebugger
    from brixdebug.stops import StopState

_INSTRUCTION = sys.monitoring.events.INSTRUCTION


class Monitor:
    """Routes events to the one debugger that traces now, and says what it needs."""

    def __init__(self) -> None:
        self.debugger: TracedDebugger | None = None
        self.switches = Switches(self._install_hooks, self._remove_hooks)
        self.turn = Turn(self._waits_for_turn)
        self.raiser = Raiser(self.switches, self._raised)
        self.returns = PassedReturns(self.switches)
        self.break_lines = BreakLines(self.switches, self.raiser, self.turn, lambda: self.suspension.is_own_thread())
        self.decisions = Decisions()
        self.suspension = Suspension(self.switches, self.turn, self.raiser,
                                     self._begin_holding, self._end_holding,
                                     self._others_were_let_go, self._other_waits, self._is_muted)
        self._needs_changed = False
        self.watches = Watches()
        self._watched_records: set[CPerCodeObject] = set()    # of the calls whose names are watched
        # id of a code object -> its lines that are reached when a thread begins, or is ended by an exception
        self.thread_lines: dict[int, set[int]] = {}
        self._watched_lives = False, False    # which of them there are
        os.register_at_fork(after_in_child=self._after_fork_in_child)

    # -- for debuggers -------------------------------------------------------------

    def start(self, debugger: TracedDebugger) -> None:
        """`debugger` gets the events from now on."""
        with self.switches.lock:
            self._trace(debugger)
            try:
                self._share(debugger, list(debugger.breaks))
            except MonitorError:
                self._trace(None)
                self._release()
                raise

    def stop(self, debugger: TracedDebugger) -> None:
        """`debugger` gets no more events; everything that was taken is given back."""
        if self.debugger is not debugger or self.suspension.is_ending_all:
            return            # the process ends, and its other threads have yet to be ended
        with self.switches.lock:
            self._trace(None)
            for state in debugger.stop_states.all():
                state.stepped.clear()
            if not self.is_busy:      # else when the event ends: it may have to raise
                self._release()

    def _trace(self, debugger: TracedDebugger | None) -> None:
        self.debugger = self.break_lines.debugger = debugger
        self.switches.wants_calls = debugger is not None and debugger.wants_calls

    def needs_changed(self, debugger: TracedDebugger | None) -> None:
        """What stops the threads of `debugger` has changed."""
        if debugger is None or self.debugger is not debugger:
            return
        self._needs_changed = True            # before the question: an event that is about to end looks at it after its end
        if not self.is_busy:
            self.refresh()

    def breaks_changed(self, debugger: TracedDebugger, filename: str) -> None:
        """The breakpoints of `filename` (a canonic name) in `debugger` have changed."""
        if self.debugger is None or self.debugger.breaks is not debugger.breaks:
            return
        with self.switches.lock:
            self._share(self.debugger, [filename])

    def _share(self, debugger: TracedDebugger, filenames: Iterable[str]) -> None:
        self.decisions.forget()
        grown = False
        for filename in filenames:
            grown |= self.break_lines.share(debugger, filename)
        # Events first: what starts from here on is seen, and what has started is on a stack.
        self._refresh()
        if debugger.breaks:
            self._find_running_code(debugger.stop_states.own(),
                                    [sys._getframe()] if ARE_PARALLEL else sys._current_frames().values())
            if ARE_PARALLEL:
                grown |= self._await_others()
        if grown:
            self.switches.rearm()

    def _await_others(self) -> bool:
        """Each other thread finds its own code, at its next event, once places are armed again; False without others."""
        thread_ids = sys._current_frames().keys() - own_thread_ids - {threading.get_ident()}
        if thread_ids or self.switches.unseen:
            self.switches.await_threads(thread_ids)
            self._refresh()
        return bool(thread_ids)

    def see_thread(self) -> None:
        """The calling thread, at an event: the code that it runs is found, and it is waited for no longer.

        Places are armed once more: one that this thread was about to switch off when they were armed is off since, and its
        next event comes after that.
        """
        unseen, debugger = self.switches.unseen, self.debugger
        if debugger is not None and threading.get_ident() in unseen:
            self._find_running_code(debugger.stop_states.own(), [sys._getframe()])
            unseen.discard(threading.get_ident())
            with self.switches.lock:
                self.switches.rearm()
        if not unseen:
            self.needs_changed(debugger)

    def _find_running_code(self, state: StopState, frames: Iterable[FrameType]) -> None:
        """What a new record runs is the debugger's, the standard library's part of it too."""
        muted, state.is_muted = state.is_muted, True
        try:
            for frame in frames:
                self.break_lines.find_running_code(frame)
        finally:
            state.is_muted = muted

    def end_all_threads(self) -> None:
        """Every thread that is debugged gets `BdbQuit` at its next event."""
        self.suspension.end_all()

    def main_thread_has_ended(self) -> None:
        """It is out of the program, which the user has quit; others may still have to end."""
        if not self.suspension.is_ending_all:
            return
        self.raiser.finished_thread_ids.add(threading.get_ident())
        if not debugged_frames().keys() - {threading.get_ident()}:
            self.suspension.end_session()
            if self.debugger is not None:
                self.stop(self.debugger)

    # -- the ends of events, and of what they have to raise --------------------------

    @property
    def is_busy(self) -> bool:
        """An event is being reported, or an exception of one has still to be raised."""
        return self.turn.depth > 0 or bool(self.raiser.pending)

    @property
    def is_at_work(self) -> bool:
        """The calling thread is in the middle of the debugger's own work."""
        return bool(self.turn.lock._is_owned() or self.switches.lock._is_owned())

    def enter_event(self) -> BaseException | None:
        """The calling thread reports; what a signal handler raised while it waited is returned."""
        interruption = self.turn.take()
        while self.suspension.alone and self.suspension.has_to_stand():
            self.turn.lock.release()
            self.suspension.stand()
            interruption = self.turn.take() or interruption
        self.turn.depth += 1
        return interruption

    def leave_event(self) -> None:
        """The calling thread has reported: the turn is another's."""
        turn = self.turn
        turn.depth -= 1
        try:
            if (self._needs_changed or self.debugger is None) and not self.is_busy:
                self.settle()
        finally:
            turn.lock.release()

    def settle(self) -> None:
        """The end of an event: do what had to wait for it."""
        if self.debugger is None:
            with self.switches.lock:
                self._release()
        elif self._needs_changed:
            self.refresh()

    def _raised(self) -> None:
        if not self.is_busy:
            self.settle()

    # -- hooks of the native module ------------------------------------------------------

    def _install_hooks(self) -> None:
        optmonitoring.SetInternalPathnameDict(internal.pathname_table())
        optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            self.switches.asked_at_end(self._on_new_code))
        self.suspension.install_hooks()

    def _on_new_code(self, record: CPerCodeObject) -> None:
        code = record.fCodeObjectWeakRef()
        if code is not None:
            self.decisions.forget_code(code)
        self.break_lines.on_new_code(record)
        self.switches.take_in(record)

    def _remove_hooks(self) -> None:
        optmonitoring.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)
        self.suspension.remove_hooks()

    # -- what is needed ------------------------------------------------------------------

    def _release(self) -> None:
        """Everything off and given back, and nothing remembered of breakpoints and steps."""
        self._needs_changed = False
        self.suspension.end_session()
        self.raiser.forget_ends()
        self.break_lines.forget()
        self.decisions.forget()
        self.thread_lines = {}
        self._watched_lives = False, False
        self._watched_records = set()
        self.returns.end()
        self.switches.release()

    def _begin_holding(self) -> bool:
        if self.debugger is None:             # no event would reach a thread
            return False
        self.refresh()
        return True

    def _end_holding(self) -> None:
        self.needs_changed(self.debugger)

    def _others_were_let_go(self) -> None:
        if self.debugger is not None and self.suspension.is_holding:
            self.debugger.others_were_let_go()

    def _is_muted(self) -> bool:
        debugger = self.debugger
        return debugger is not None and debugger.stop_states.own().is_muted

    def _waits_for_turn(self, thread_id: int) -> None:
        self.suspension.evaluation.waits_for_turn(thread_id)

    def _other_waits(self, thread_id: int) -> None:
        try:
            if self.debugger is not None:
                self.debugger.other_waits(thread_id)
        except Exception:
            dlog.LogException("a thread that waits")

    def refresh(self) -> None:
        """Switch on what is needed now, and nothing else."""
        with self.switches.lock:
            self._refresh()

    def _refresh(self) -> None:
        self._needs_changed = False
        debugger = self.debugger
        if debugger is None:
            return
        busy = [] if debugger.quitting else \
            [state for state in debugger.stop_states.all() if not state.is_free]
        if not busy:
            self.returns.end()
        self.switches.unseen -= own_thread_ids        # those that have been adopted since
        is_holding = self.suspension.is_active
        exception_stops = debugger.exception_stops
        if not (busy or debugger.breaks or debugger.awaits_code or debugger.awaits_threads or is_holding
                or exception_stops.is_asked_for or self.watches.active):
            self._watch_lives(False, False)
            self._watch_calls()
            self.switches.need_nothing()
            return
        self.switches.claim()         # before a record is made: the hook for new code has to see it
        self._watch_lives(debugger.awaits_threads, exception_stops.catches(UNCAUGHT))
        self._watch_calls()
        self.switches.need(
            is_idle=not (busy or is_holding),
            stepped=self._collect_all_stepped(debugger, busy),
            anywhere={state.thread_id for state in busy if state.stops_anywhere},
            finds=bool(debugger.breaks) or debugger.awaits_code or is_holding,
            unwinds=bool(busy or self._watched_records) or exception_stops.catches(UNHANDLED),
            raises=exception_stops.catches(RAISED),
            lines=self.watches.is_everywhere,
            ends=self.suspension.is_ending_all)

    @property
    def just_my_code(self) -> bool:
        """Whether steps pass by the code of libraries."""
        return self.switches.is_hidden is not None

    def set_just_my_code(self, is_on: bool) -> None:
        self.switches.is_hidden = _is_of_library if is_on else None

    def _watch_lives(self, begins: bool, ends: bool) -> None:
        """Have the lines reported, or no longer, where threads begin, and where they end by an exception."""
        if self._watched_lives == (begins, ends) or self.debugger is None:
            return
        self._watched_lives = begins, ends
        state = self.debugger.stop_states.own()
        muted, state.is_muted = state.is_muted, True      # the standard library is asked for the lines
        try:
            self._watch_lines_of_lives(begins, ends)
        finally:
            state.is_muted = muted

    def _watch_lines_of_lives(self, begins: bool, ends: bool) -> None:
        wanted: dict[CodeType, set[int]] = {}
        for places, is_wanted in (places_of_beginning(), begins), (places_of_uncaught(), ends):
            for code, lines in places:
                wanted.setdefault(code, set()).update(lines if is_wanted else ())
        # First, and whole: a thread may reach one of the lines at once.
        before, self.thread_lines = self.thread_lines, {id(code): lines for code, lines in wanted.items() if lines}
        for code, lines in wanted.items():
            record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
            self.switches.want(record, lives=lines)
        if any(lines - before.get(id(code), set()) for code, lines in wanted.items()):
            self.switches.rearm()

    def _watch_calls(self) -> None:
        """Have all lines and returns of the calls reported whose names are watched."""
        records = set()
        for frame in self.watches.codes_of_calls().values():
            record = record_of(frame)
            if record is not None:
                records.add(record)
        before, self._watched_records = self._watched_records, records
        for record in before - records:
            self.switches.want(record, watched=False)
        for record in records - before:
            self.switches.want(record, watched=True)
        if records - before:
            self.switches.rearm()

    def _collect_all_stepped(self, debugger: TracedDebugger,
                             busy: list[StopState]) -> dict[CPerCodeObject, int]:
        """The code objects that have to be reported, each with its local events."""
        top_frames = sys._current_frames() if busy else {}
        if ARE_PARALLEL:
            standing = {threading.get_ident(), *map(thread_id_of, list(self.suspension.held.values()))}
            top_frames = {thread_id: frame for thread_id, frame in top_frames.items() if thread_id in standing}
        for state in busy:
            self._collect_stepped(debugger, state, top_frames.get(state.thread_id))
        del top_frames                        # it holds the frame of this very call
        stepped: dict[CPerCodeObject, int] = {}
        for state in debugger.stop_states.all():
            if state not in busy:
                state.stepped.clear()
                state.untrace_all()
            for record, events in state.stepped.items():
                stepped[record] = stepped.get(record, 0) | events
        return stepped

    def _collect_stepped(self, debugger: TracedDebugger, state: StopState,
                         frame: FrameType | None) -> None:
        """Note the code objects of a thread that is being stepped.

        None is dropped before the thread runs freely again: a frame that was on the
        stack may be suspended now, and come back.
        """
        for wanted in (state.stopframe, state.returnframe):
            if wanted is None or wanted is NOWHERE:
                continue
            state.trace(wanted)
            self._add_stepped(debugger, wanted, state)
        while frame is not None:
            if state.traces(frame, debugger):
                self._add_stepped(debugger, frame, state)
            frame = frame.f_back

    @staticmethod
    def _add_stepped(debugger: TracedDebugger | None, frame: FrameType,
                     state: StopState) -> CPerCodeObject | None:
        """Note the code object of `frame`; None when that changes nothing, else its record."""
        record = record_of(frame)
        if record is None or record.fIsInternal:
            return None
        events = state.stepped.get(record, 0) | STEP_LOCAL_EVENTS
        if state.traces_opcodes(frame, debugger):
            events |= _INSTRUCTION
        if state.stepped.get(record) == events:
            return None
        state.stepped[record] = events
        return record

    def step_in(self, frame: FrameType, state: StopState) -> None:
        """The thread of `state` is being stepped, and `frame` is a frame to step."""
        with self.switches.lock:
            record = self._add_stepped(self.debugger, frame, state)
            if record is not None:
                self.switches.step_too(record, state.stepped[record])

    # -- fork --------------------------------------------------------------------------

    def _after_fork_in_child(self) -> None:
        """Only the forking thread is left; locks of the others will never be released."""
        self.switches.after_fork_in_child()
        self.decisions.begin_anew()
        self.raiser.keep_only_own()
        if not self.turn.keep_only_own():
            self.raiser.forget_ends()
        # The filter answers nothing in a child before it is told the new process id, so
        # nobody needs a lock before here.
        optmonitoring.UpdateThisProcessPid()
        self.suspension.forget_other_threads()
        if self.debugger is None:
            return
        self.debugger.stop_states.keep_only_own()
        self.debugger.interruption.end()      # its helper thread is gone
        self.debugger.after_fork_in_child()


def _is_of_library(record: CPerCodeObject) -> bool:
    code = record.fCodeObjectWeakRef()
    return code is not None and is_library(code.co_filename)


monitor = Monitor()
