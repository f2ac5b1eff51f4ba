"""What is switched on: the one user of `sys.monitoring` here, and the one writer of the filter's fields.

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
    INSTRUCTION                    in those that hold one at a statement inside a line; off
                                   again at each other instruction
    RAISE, PY_UNWIND               while a thread is stepped
    RAISE                          while exceptions are to stop where they are raised
    RAISE, PY_UNWIND               while they are to stop where they leave the user's code
    LINE, PY_START, JUMP           in the function of `threading` that runs a thread, while
                                   exceptions are to stop that end one, or begins are reported
    LINE, JUMP, PY_START, returns  in the functions of calls whose local names are watched,
    PY_UNWIND                      and the end of such a call by an exception
    LINE, JUMP                     while attributes or global names are watched
    LINE, JUMP, returns            in the code objects of frames that are stepped
    LINE, PY_START, JUMP           in all running code, while a thread is at the prompt; where threads run at the
                                   same time in all code, then and until each has been seen after a new breakpoint
    CALL                           for the raiser alone, in the code of frames that are stepped,
    PY_RETURN                      and in the functions called there, to show what they return

While all threads run freely the second callbacks switch off, place by place, what
is no breakpoint (DISABLE), and the program pays for nothing but the lines that have
one.  While a thread is stepped or at the prompt everything stays armed; the filter is
given the lines then (`fEnabledBpLinenos`) and answers for the others in native code.

New code is found without the filter while no thread needs every start of a function: a
function of Python (`_on_start`) switches a place off at once when nobody waits in the whole
file, and the filter is asked in the other files alone.

This file decides nothing: those above say what they need of a code object (`want`), of
all code (`need`) and of all threads (`hold`).
"""

from __future__ import annotations

import _thread
import atexit
import os
import sys
from types import CodeType

import optmonitoring

from brixdebug.locks import ARE_PARALLEL, CallbackAtEnd, LockAtEnd
from brixdebug.places import SwitchedOff
from brixdebug.records import line_at, thread_id_of

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable
    from collections.abc import Set as AbstractSet
    from types import FrameType
    from typing import Any

    from optmonitoring import CInitialCallback, CPerCodeObject

TOOL_NAME = "brixdebug"
RAISER_TOOL_ID = sys.monitoring.DEBUGGER_ID
FILTER_TOOL_IDS = (4, 3)        # the first that is free; above the raiser's

_events = sys.monitoring.events
_DISABLE = sys.monitoring.DISABLE
_NO_LINES: set[int] = set()
_NO_OFFSETS: set[int] = set()

_FIND_EVENTS = _events.PY_START | _events.PY_RESUME | _events.PY_THROW
_UNWIND_EVENTS = _events.RAISE | _events.PY_UNWIND
_BREAK_LOCAL_EVENTS = _events.LINE | _events.PY_START | _events.JUMP
STEP_LOCAL_EVENTS = (_events.LINE | _events.JUMP | _events.PY_RETURN | _events.PY_YIELD
                     | _events.STOP_ITERATION)
# Enough to catch a thread in the loop that it is in.
_HOLD_LOCAL_EVENTS = _events.LINE | _events.PY_START | _events.JUMP
_WATCH_LOCAL_EVENTS = _events.LINE | _events.JUMP | _events.PY_START | _events.PY_RETURN | _events.PY_YIELD
_WATCH_EVENTS = _events.LINE | _events.JUMP
# Where code is found, and what is called for it; see `Switches._find`.
_START_EVENTS = (_events.PY_START, _events.PY_RESUME)
# Events that cannot be switched off at one place.
_LASTING_EVENTS = _events.PY_THROW | _events.PY_UNWIND | _events.RAISE


_NO_NAMES: frozenset[str] = frozenset()
_PASSED_LIMIT = 100_000         # a program may name each of its texts in its own way


class MonitorError(RuntimeError):
    """The events are not available; the text is for the user."""


class Switches:
    """Owns the two tool ids, and what is on under them."""

    def __init__(self, install_hooks: Callable[[], None], remove_hooks: Callable[[], None]) -> None:
        self._install_hooks = install_hooks           # called when the tool ids are taken,
        self._remove_hooks = remove_hooks             # and before they are given back
        self._second_callbacks: dict[int, Callable[..., object]] = {}     # event -> callback
        self._look_at: Callable[[CodeType, FrameType], BaseException | None] = lambda code, frame: None
        self.lock: Any = _thread.RLock()              # around changes of what is switched on
        self._filter_tool_id: Any = None              # None: no tool id is taken
        self._switched_off = SwitchedOff()
        self._initial_callbacks: dict[int, CInitialCallback] = {}
        # What is wanted of code objects, by their records.
        self._lines: dict[Any, set[int]] = {}         # to be reported; no entry without
        self._lines_by_code: dict[int, set[int]] = {}     # the same, by ids of code objects, perhaps of dead ones
        self._offsets: dict[Any, set[int]] = {}       # of instructions to be reported
        self._offsets_by_code: dict[int, set[int]] = {}
        self._lives: dict[Any, set[int]] = {}          # lines where threads begin, or end by an exception
        self._watched: set[Any] = set()               # all lines and returns are reported
        self._stepping: dict[Any, int] = {}           # local events for stepping
        self._held: set[Any] = set()                  # threads that run the code are held in it
        self._local_events: dict[Any, int] = {}       # what is on for that
        self._global_events = 0
        self._raiser_events = 0
        self._raising: dict[int, CodeType] = {}       # id of a thread with an exception to raise -> the code to do it in
        self._told: dict[int, tuple[CodeType, int]] = {}     # id of a code object -> it, and events that `tell_of_calls` wants
        self._call_callbacks: dict[int, Callable[..., object]] = {}
        self._raiser_callbacks: dict[int, Callable[..., object] | None] = {}      # event -> what is registered
        self._any_stops_anywhere = False
        self._is_holding = False
        self._reports_all_lines = False
        # Tells of which code objects steps pass by; None: of none.
        self.is_hidden: Callable[[CPerCodeObject], bool] | None = None
        self._hides = False                   # the filter knows of them now
        self._process_id = os.getpid()
        self._passed: set[str] = set()        # `co_filename`s of files in which nobody waits
        self._passing: AbstractSet[str] = _NO_NAMES   # these, while code is found without the filter
        self._is_ending = False               # the interpreter takes this module apart soon
        atexit.register(self._end)
        self.unseen: set[int] = set()         # ids of threads that may run code with new breakpoints, see `await_threads`
        self.wants_calls = False              # user_call is to be called in code with breakpoints
        self.is_idle = True                   # all threads run freely
        self.epoch = 0                        # counts the times when places were armed again

    def report_to(self, second_callbacks: dict[int, Callable[..., object]]) -> None:
        """The filter's events go to these, by event."""
        self._second_callbacks = second_callbacks

    def find_with(self, look_at: Callable[[CodeType, FrameType], BaseException | None]) -> None:
        """`look_at` is called with code in a file that is not passed over, and its frame.

        It may call `pass_over`, and returns what the handler of a signal has raised meanwhile.
        """
        self._look_at = look_at

    # -- what one code object is needed for --------------------------------------------

    def want(self, record: CPerCodeObject, *, lines: set[int] | None = None, offsets: set[int] | None = None,
             lives: set[int] | None = None, stepping: int | None = None,
             held: bool | None = None, watched: bool | None = None) -> None:
        """Switch on in one code object what it is needed for; None leaves that as it is.

        `lines` are reported, and so are `lives`, where threads begin or end; none when the set is empty.
        `stepping` are its local events for frames that are stepped; `held`: threads are to be
        caught in it.  `watched`: all its lines and returns are reported.  `offsets`: its
        instructions that are.  Called with the lock.
        """
        for table, wanted in (self._lines, lines), (self._offsets, offsets), (self._lives, lives):
            if wanted:
                table[record] = wanted
            elif wanted is not None:
                table.pop(record, None)
        if stepping:
            self._stepping[record] = stepping
        elif stepping is not None:
            self._stepping.pop(record, None)
        for members, is_wanted in (self._held, held), (self._watched, watched):
            if is_wanted:
                members.add(record)
            elif is_wanted is not None:
                members.discard(record)
        self._apply(record)

    def step_too(self, record: CPerCodeObject, events: int) -> None:
        """Have these events of one code object beside what is stepped already."""
        self.want(record, stepping=self._stepping.get(record, 0) | events)

    def lines_of(self, record: CPerCodeObject) -> set[int] | None:
        """The lines to be reported; None without."""
        return self._lines.get(record)

    def offsets_of(self, record: CPerCodeObject) -> set[int]:
        """The instructions to be reported."""
        return self._offsets.get(record, _NO_OFFSETS)

    def is_offset_wanted(self, code: CodeType, offset: int) -> bool:
        """A statement with a breakpoint of its own begins at this instruction."""
        return offset in self._offsets_by_code.get(id(code), _NO_OFFSETS)

    def _reported_lines(self, record: Any) -> set[int]:
        lines, lives = self._lines.get(record, _NO_LINES), self._lives.get(record)
        return lines | lives if lives is not None else lines

    def forget_dead_code(self) -> None:
        """Drop the lines of code objects that exist no longer."""
        for table in self._lines, self._offsets:
            for record in [each for each in table if each.fCodeObjectWeakRef() is None]:
                del table[record]

    def is_held(self, code: CodeType) -> bool:
        """Threads are caught in this code for its own sake."""
        return optmonitoring.CPerCodeObject.GetPerCodeObject(code, False) in self._held

    def let_all_go(self) -> None:
        """No code object is needed to hold threads any longer."""
        with self.lock:
            held, self._held = self._held, set()
            for record in held:
                self._apply(record)

    def _apply(self, record: CPerCodeObject) -> None:
        events = self._stepping.get(record, 0)
        if record in self._held:
            events |= _HOLD_LOCAL_EVENTS
        if record in self._watched:
            events |= _WATCH_LOCAL_EVENTS
        is_hidden = self.is_hidden(record) if self._hides and self.is_hidden is not None else None
        count = 1 if events or is_hidden is False else 0
        lines = self._reported_lines(record)
        # None lets every line through, to be switched off by the second callback.
        reported = None if self.is_idle or self._reports_all_lines else lines or (set() if is_hidden else None)
        # Threads that run at the same time look into a frozenset without a lock.
        record.fEnabledBpLinenos = frozenset(reported) if ARE_PARALLEL and reported is not None else reported
        if lines:
            events |= _BREAK_LOCAL_EVENTS
            if self.wants_calls:
                count = 1
        if record in self._offsets:
            events |= _events.INSTRUCTION
        if events:
            self.claim()
        record.fSteppingEventsNeededCount = count
        self._note_lines(record, lines)
        self._set_local_events(record, events)

    def _note_lines(self, record: CPerCodeObject, lines: set[int]) -> None:
        code = record.fCodeObjectWeakRef()
        if code is None:
            return
        for table, wanted in (self._lines_by_code, lines), (self._offsets_by_code, self.offsets_of(record)):
            if wanted:
                table[id(code)] = wanted
            else:
                table.pop(id(code), None)

    def _set_local_events(self, record: CPerCodeObject, events: int) -> None:
        if self._local_events.get(record, 0) == events:
            return
        if events:
            self._local_events[record] = events
        else:
            del self._local_events[record]
        code = record.fCodeObjectWeakRef()
        if code is not None:
            sys.monitoring.set_local_events(RAISER_TOOL_ID, code, self._raisers(record, code, events))
            sys.monitoring.set_local_events(self._filter_tool_id, code, events)

    def _raisers(self, record: CPerCodeObject, code: CodeType, events: int) -> int:
        """The raiser's local events: not each instruction for the sake of one, which it would never switch off."""
        if record in self._offsets:
            events &= ~_events.INSTRUCTION
        if self._told:
            events |= self._told.get(id(code), (code, 0))[1]
        if self._raising and any(each is code for each in self._raising.values()):
            events |= STEP_LOCAL_EVENTS
        return events

    # -- what all code is needed for ------------------------------------------------------

    def need(self, *, is_idle: bool, stepped: dict[CPerCodeObject, int], anywhere: set[int],
             finds: bool, unwinds: bool, raises: bool, lines: bool, ends: bool) -> None:
        """Switch on what is needed of all code, and in the code objects that are stepped.

        `is_idle`: all threads run freely.  `stepped` replaces what was wanted for stepping.
        `anywhere`: ids of the threads that stop at the start of every function.  `finds`:
        new code has to be found.  `unwinds`: exceptions are reported, and the functions that they
        leave; `raises`: exceptions alone.  `lines`: every line of every thread is reported.  `ends`: threads
        are ended where they start a function.
        """
        was_idle, self.is_idle = self.is_idle, is_idle
        self._set_stepping(stepped)
        self._mark_threads(anywhere)
        step_events = _UNWIND_EVENTS if unwinds else _events.RAISE if raises else 0
        if anywhere or ends:
            step_events |= _FIND_EVENTS
        if lines:
            step_events |= _WATCH_EVENTS
        if self._awaits_all_threads():
            step_events |= _HOLD_LOCAL_EVENTS
        events = step_events | (_FIND_EVENTS if finds else 0)
        self._set_reports_all_lines(lines)
        self._find_without_filter(finds and not (anywhere or ends or lines or self._is_holding))
        self._set_events(events, step_events)
        if was_idle != is_idle:
            self._change_idle()

    def _awaits_all_threads(self) -> bool:
        """Whether all code has to have events, to catch threads whose frames nobody may walk over; see `ARE_PARALLEL`."""
        if self.unseen:
            self.unseen &= set(sys._current_frames())     # the others have ended
            if not self.unseen:
                self.rearm()
        return ARE_PARALLEL and (self._is_holding or bool(self.unseen))

    def _set_reports_all_lines(self, is_wanted: bool) -> None:
        if self._reports_all_lines == is_wanted:
            return
        self._reports_all_lines = is_wanted
        self._register_raiser()
        for record in [*self._lines, *self._lives]:
            self._apply(record)
        if is_wanted:
            self.rearm()

    def need_nothing(self) -> None:
        """Nothing is needed at present: the tool ids are free for others."""
        self._set_stepping({})
        self._any_stops_anywhere = False
        self._hide(False)
        self._give_back()

    def _change_idle(self) -> None:
        """All threads run freely now, or no longer."""
        self._register_raiser()
        for record in [*self._lines, *self._lives]:
            self._apply(record)
        if not self.is_idle:
            self.rearm()

    def _set_stepping(self, stepped: dict[CPerCodeObject, int]) -> None:
        before, self._stepping = self._stepping, stepped
        for record in before:
            if record not in stepped:
                self._apply(record)
        for record in stepped:
            self._apply(record)

    def _mark_threads(self, stepping_thread_ids: set[int]) -> None:
        """Tell the filter which threads see the start of every function."""
        begins = stepping_thread_ids and not self._any_stops_anywhere
        self._any_stops_anywhere = bool(stepping_thread_ids)
        for per_thread in optmonitoring.CPerThread.GetAllPerThreads():
            if thread_id_of(per_thread) not in stepping_thread_ids:
                per_thread.fSteppingEventsNeeded = False
        for thread_id in stepping_thread_ids:
            per_thread = optmonitoring.CPerThread.GetPerThread(thread_id)
            if per_thread is not None:        # it may have ended meanwhile
                per_thread.fSteppingEventsNeeded = self.is_hidden is None
        self._hide(self._any_stops_anywhere and self.is_hidden is not None)
        if begins:
            self.rearm()

    def _hide(self, is_wanted: bool) -> None:
        """While a step may end anywhere, have the filter answer for the code that it passes by.

        The thread's own field would let the starts of all functions through: the code objects
        that matter say so themselves then, and the others have no line that does.
        """
        if self._hides == is_wanted:
            return
        self._hides = is_wanted
        for per_file in optmonitoring.CPerFile.GetAllPerFiles():
            for record in list(per_file.fKnownPerCodeObjects):
                if not record.fIsInternal:
                    self._apply(record)

    def take_in(self, record: CPerCodeObject) -> None:
        """A code object is new."""
        if self._hides and not record.fIsInternal:
            with self.lock:
                self._apply(record)

    def _set_events(self, events: int, raiser_events: int) -> None:
        if raiser_events != self._raiser_events:
            sys.monitoring.set_events(RAISER_TOOL_ID, raiser_events)
            self._raiser_events = raiser_events
        if events != self._global_events:
            sys.monitoring.set_events(self._filter_tool_id, events)
            self._global_events = events

    def rearm(self) -> None:
        """Arm what was switched off place by place.  What is needed has to be written before."""
        self.epoch += 1
        if self._filter_tool_id is not None:
            self._switched_off.arm_again((RAISER_TOOL_ID, self._filter_tool_id))

    # -- finding code ----------------------------------------------------------------------

    def pass_over(self, filename: str) -> None:
        """Nobody waits in code with this `co_filename`.  Called with the lock."""
        if len(self._passed) >= _PASSED_LIMIT:
            self._passed.clear()              # they are looked at anew
        self._passed.add(filename)

    def look_again(self, filenames: Iterable[str]) -> None:
        """Somebody may wait in code with these names.  Called with the lock, and `rearm` after it."""
        self._passed.difference_update(filenames)

    def _find_without_filter(self, is_wanted: bool) -> None:
        is_wanted = is_wanted and not self._is_ending
        if is_wanted is (self._passing is self._passed):
            return
        # Who comes late is never answered with what is no longer so.
        self._passing = self._passed if is_wanted else _NO_NAMES
        own = (self._on_start, self._on_resume)
        for event, callback in zip(_START_EVENTS, own):
            sys.monitoring.register_callback(
                self._filter_tool_id, event,
                callback if is_wanted else self._initial_callbacks[event].Callback)

    def _end(self) -> None:
        """Python code cannot be called for events until the very end, the filter can."""
        with self.lock:
            self._is_ending = True
            self._find_without_filter(False)
            if self._filter_tool_id is not None:      # else the raiser's id may be another tool's
                for event, callback in self._raiser_callbacks.items():
                    self._ask_raiser(event, callback)
            if ARE_PARALLEL and len(sys._current_frames()) > 1:
                self._end_beside_others()
        self.lock = LockAtEnd(self.lock)

    def _end_beside_others(self) -> None:
        """The thread that ends the interpreter asks nothing more of the debugger in Python.

        The threads that run now are stopped for good, and one of them may have been given the lock of any table just before.
        """
        if self._filter_tool_id is not None:
            self._install_hooks()             # new code comes before the policy, which this makes unknown
        optmonitoring.CPerThread.GetPerThread(_thread.get_ident()).fDebugPolicy = 0

    def asked_at_end(self, callback: Callable[..., Any]) -> Callable[..., Any]:
        """`callback` as it may be called from now on."""
        return CallbackAtEnd(callback) if self._is_ending else callback

    # Nothing is called before DISABLE is answered, so no other thread gets between.

    def _on_start(self, code: CodeType, offset: int) -> object:
        if code.co_filename in self._passing:
            return _DISABLE
        return self._find(_events.PY_START, code, offset)

    def _on_resume(self, code: CodeType, offset: int) -> object:
        if code.co_filename in self._passing:
            return _DISABLE
        return self._find(_events.PY_RESUME, code, offset)

    def _find(self, event: int, code: CodeType, offset: int) -> object:
        """Code of a file that is not known, or in which somebody waits."""
        if os.getpid() != self._process_id:
            return None                       # a child whose locks are not its own yet
        interruption = self._look_at(code, sys._getframe(2))
        if interruption is not None:
            raise interruption
        if code.co_filename in self._passing:
            return _DISABLE
        return self._initial_callbacks[event].Callback(code, offset)

    # -- what all threads are needed for ---------------------------------------------------

    def hold(self, is_holding: bool) -> None:
        """Whether events are needed in all code that runs, to catch threads."""
        self._is_holding = is_holding

    def look_at_suspend_locks(self, is_needed: bool) -> None:
        """Whether threads have to look at their suspend locks."""
        for callback in self._initial_callbacks.values():
            callback.fAnySuspendThread = int(is_needed)

    def await_threads(self, thread_ids: set[int]) -> None:
        """Each of these has an event soon, and is to be taken out of `unseen` when the code that it runs has been found.

        The lock, `need` and `rearm` are the caller's.
        """
        self.unseen = thread_ids

    # -- what nobody needs -----------------------------------------------------------------

    # DISABLE takes hold after the callback has ended.  Should another thread arm places
    # meanwhile, it must not: who answers so looks at the epoch once more as the very last thing,
    # after `note_off`.

    def note_off(self, code: CodeType) -> None:
        """DISABLE is going to be answered for a place of `code`."""
        self._switched_off.note(code)

    # CHANGE-ANSWER: whether a line that got through is switched off, in the debugger.
    def is_line_off(self, code: CodeType, line: int | None) -> bool:
        """Nobody waits for this line of `code`."""
        if not self.is_idle or self._reports_all_lines:
            return False
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        if record in self._watched:
            return False
        return line not in self._reported_lines(record)

    def is_jump_off(self, code: CodeType, offset: int, destination: int) -> bool:
        """Nobody waits for this jump; it matters where it begins a loop on one line again."""
        line = line_at(code, offset)
        return destination > offset or line != line_at(code, destination) \
            or self.is_line_off(code, line)

    def is_call_off(self, code: CodeType, line: int | None) -> bool:
        """Nobody waits for the start of just any function, nor for that of `code` at `line`.

        With its start switched off, a function on one line reports no line either.
        """
        if self._any_stops_anywhere or self._is_holding:
            return False
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        return line not in self._reported_lines(record)

    # -- the raiser ------------------------------------------------------------------------

    def begin_raising(self, code: CodeType, callback: Callable[..., object]) -> None:
        """`callback` is called by the raiser soon, in the calling thread, which runs `code` or leaves it."""
        with self.lock:
            self._raising[_thread.get_ident()] = code
            self.claim()
            sys.monitoring.set_events(RAISER_TOOL_ID, self._raiser_events | _UNWIND_EVENTS)
            sys.monitoring.set_local_events(
                RAISER_TOOL_ID, code,
                sys.monitoring.get_local_events(RAISER_TOOL_ID, code) | STEP_LOCAL_EVENTS)
            self.rearm()
            for event in self._second_callbacks:
                self._ask_raiser(event, callback)

    def end_raising(self, code: CodeType) -> None:
        """The calling thread has its exception."""
        with self.lock:
            self._raising.pop(_thread.get_ident(), None)
            self._register_raiser()
            record: Any = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
            sys.monitoring.set_events(RAISER_TOOL_ID, self._raiser_events)
            sys.monitoring.set_local_events(RAISER_TOOL_ID, code,
                                            self._raisers(record, code, self._local_events.get(record, 0)))

    def _register_raiser(self) -> None:
        """The raiser's callbacks while it has nothing to raise: none, or what switches places off."""
        if self._raising:
            return
        callbacks: dict[int, Callable[..., object]] = {}
        if self.is_idle:
            callbacks = dict.fromkeys((_events.PY_START, _events.PY_RESUME), self._on_raiser_call)
            if not self._reports_all_lines:
                callbacks.update({_events.LINE: self._on_raiser_line, _events.JUMP: self._on_raiser_jump})
        if self._told:
            callbacks.update(self._call_callbacks)
        for event in [*self._second_callbacks, *self._call_callbacks]:
            self._ask_raiser(event, callbacks.get(event))

    def _ask_raiser(self, event: int, callback: Callable[..., object] | None) -> None:
        """Register what the raiser calls for `event`; None: nothing."""
        self._raiser_callbacks[event] = callback
        sys.monitoring.register_callback(RAISER_TOOL_ID, event, callback and self.asked_at_end(callback))

    # -- calls that steps pass over ----------------------------------------------------------

    def report_calls_to(self, callbacks: dict[int, Callable[..., object]]) -> None:
        """What the raiser is asked for by `tell_of_calls` goes to these, by event."""
        self._call_callbacks = callbacks

    def tell_of_calls(self, code: CodeType, events: int) -> None:
        """Have these events of one code object too.  Called with the lock."""
        self.claim()
        is_first = not self._told
        self._told[id(code)] = code, self._told.get(id(code), (code, 0))[1] | events
        if is_first:
            self._register_raiser()
        sys.monitoring.set_local_events(RAISER_TOOL_ID, code,
                                        sys.monitoring.get_local_events(RAISER_TOOL_ID, code) | events)

    def tells_of_returns(self, code: CodeType) -> bool:
        return bool(self._told.get(id(code), (code, 0))[1] & _events.PY_RETURN)

    def tell_of_no_calls(self) -> None:
        """Called with the lock."""
        told, self._told = self._told, {}
        for code, _ in told.values():
            record: Any = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
            sys.monitoring.set_local_events(RAISER_TOOL_ID, code,
                                            self._raisers(record, code, self._local_events.get(record, 0)))
        if told:
            self._register_raiser()

    def _on_raiser_line(self, code: CodeType, line: int) -> Any:
        if line in self._lines_by_code.get(id(code), _NO_LINES):
            return None                       # at once: a breakpoint may be in a hot loop
        epoch = self.epoch
        if self.is_line_off(code, line):
            self.note_off(code)
            return _DISABLE if epoch == self.epoch else None

    def _on_raiser_jump(self, code: CodeType, offset: int, destination: int) -> Any:
        epoch = self.epoch
        if self.is_jump_off(code, offset, destination):
            self.note_off(code)
            return _DISABLE if epoch == self.epoch else None

    def _on_raiser_call(self, code: CodeType, offset: int) -> Any:
        epoch = self.epoch
        if self.is_call_off(code, line_at(code, offset)):
            self.note_off(code)
            return _DISABLE if epoch == self.epoch else None

    # -- tool ids ----------------------------------------------------------------------------

    def claim(self) -> None:
        """Take the tool ids, if they are not taken; MonitorError when somebody else has them."""
        if self._filter_tool_id is not None:
            return
        filter_tool_id = _free_filter_tool_id()
        sys.monitoring.use_tool_id(RAISER_TOOL_ID, TOOL_NAME)
        sys.monitoring.use_tool_id(filter_tool_id, TOOL_NAME + " filter")
        self._filter_tool_id = filter_tool_id
        self._install_hooks()
        if not self._initial_callbacks:
            for event, second_callback in self._second_callbacks.items():
                self._initial_callbacks[event] = optmonitoring.CInitialCallback(
                    event, second_callback, 0 if event & _LASTING_EVENTS else 1)
        for event, initial_callback in self._initial_callbacks.items():
            sys.monitoring.register_callback(filter_tool_id, event, initial_callback.Callback)
        self._passing = _NO_NAMES
        self._register_raiser()

    def release(self) -> None:
        """Everything off and given back, and nothing remembered of what was wanted.

        Tables that other threads look into are replaced: in a forked child of a free-threaded interpreter one of these
        may have the table's own lock for ever.
        """
        self._lines, self._offsets, self._lives = {}, {}, {}
        self._lines_by_code, self._offsets_by_code = {}, {}
        self._watched = set()
        self._reports_all_lines = False
        self._hide(False)
        self._stepping = {}
        self._held = set()
        self._passed = set()
        self._any_stops_anywhere = False
        self.unseen = set()
        self.is_idle = True
        for record in list(self._local_events):
            record.fEnabledBpLinenos = None
            record.fSteppingEventsNeededCount = 0
        for per_thread in optmonitoring.CPerThread.GetAllPerThreads():
            per_thread.fSteppingEventsNeeded = False
        self._give_back()

    def _give_back(self) -> None:
        """The tool ids and all that is switched on under them."""
        if self._filter_tool_id is None:
            return
        self._passing = _NO_NAMES
        self.tell_of_no_calls()
        self._set_events(0, 0)
        for record in list(self._local_events):
            self._set_local_events(record, 0)
        for event in self._initial_callbacks:
            sys.monitoring.register_callback(self._filter_tool_id, event, None)
            self._ask_raiser(event, None)
        self._remove_hooks()
        tool_ids = RAISER_TOOL_ID, self._filter_tool_id
        self._filter_tool_id = None
        self._switched_off.give_back(tool_ids)

    # -- fork --------------------------------------------------------------------------------

    def after_fork_in_child(self) -> None:
        """Locks of other threads will never be released, and nothing is raised in them."""
        if not self.lock._is_owned():
            self.lock = _thread.RLock()
        own_id = _thread.get_ident()
        self._raising = {own_id: self._raising[own_id]} if own_id in self._raising else {}
        self._process_id = os.getpid()
        self.unseen = {own_id} if self.unseen else set()      # it may have been one of them; the old table may be locked


def program_frame(frame: FrameType) -> FrameType:
    """The frame of an event, for the frame that called what was called for it: `_find` may be between."""
    if frame.f_code is Switches._find.__code__:
        return _caller(_caller(frame))
    return frame


def _caller(frame: FrameType) -> FrameType:
    caller = frame.f_back
    assert caller is not None
    return caller


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
