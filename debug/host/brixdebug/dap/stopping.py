"""The debugger behind a client: tells it of stops, and does in a stopped thread what the client asks for.

What stops and what is held is the engine's business.  Here a stop waits for the client
instead of for a prompt.
"""

from __future__ import annotations

import _thread
import queue
import sys
import threading

import optmonitoring

from brixdebug import compat
from brixdebug.dap import standard_pdb
from brixdebug.engine import Bdb
from brixdebug.libraries import set_rules
from brixdebug.monitor import monitor
from brixdebug.statements import end_of_instruction
from brixdebug.suspension import debugged_frames
from brixdebug.switches import MonitorError

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Sequence
    import bdb
    from types import CodeType, FrameType
    from typing import Any, Protocol

    from brixdebug.exceptions import ExceptionRule
    from brixdebug.libraries import Rule
    from brixdebug.lives import Tell
    from brixdebug.watching import Change, Watch

    class Front(Protocol):
        """What the debugger reports; each is called by the thread that it is about."""

        def on_stop(self, stop: Stop) -> bool:
            """All threads are held; True when the stop is to wait."""

        def on_went_on(self, stop: Stop) -> None: ...

        def on_all_go_on(self, stop: Stop) -> None:
            """By themselves: the threads that ran alone have ended."""

        def on_let_go(self) -> None:
            """What is evaluated takes so long that the other threads go on meanwhile."""

        def on_log(self, frame: FrameType, text: str) -> None:
            """A breakpoint that logs has been reached."""

        def on_new_code(self, code: CodeType) -> None:
            """Code runs for the first time; called after `await_code`."""

        def on_watch_end(self, watch: Watch) -> None:
            """The watch has nothing left to look at."""

_TURN_SECONDS = 0.05          # between looks whether a thread has stopped meanwhile


class Stop:
    """All threads stand still, because of one of them: a thread that does what it is given until they may go on."""

    def __init__(self, thread_id: int, frame: FrameType | None, reason: str, text: str = "",
                 breakpoint_number: int | None = None, returned: Sequence[tuple[str, object]] = (),
                 exception: BaseException | None = None, is_uncaught: bool = False, column: int | None = None,
                 changes: Sequence[Change] = (), below: FrameType | None = None) -> None:
        self.thread_id = thread_id
        self.frame = frame                   # the innermost one of that thread that the user sees
        self.reason = reason                 # as in the protocol's `stopped` event
        self.text = text
        self.breakpoint_number = breakpoint_number
        self.changes = changes               # of watched values
        self.column = column                 # of the statement in `frame` that is next, in bytes; None: the line's first
        self.returned = list(returned)       # names of the functions that the step before has called or left, and their values
        self.returned_to: FrameType | None = frame   # whose variables they are shown with
        self.exception = exception
        self.is_uncaught = is_uncaught       # the stack is that of the exception, which has been left
        self.is_rest = False                 # of other threads than the one that goes on alone
        self.only: int | None = None         # the thread that goes on from here; None: all
        self.below = below                   # the outermost frame of it, when the thread goes on
        self._tasks: queue.SimpleQueue[Callable[[], None] | None] = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._ends = False                   # `go_on` has been called
        self._has_ended = False              # and nothing is left to do

    def run(self) -> None:
        """Do what comes, until `go_on`; what came too late for it is done too."""
        while self._goes_on():
            task = self._tasks.get()
            if task is None:
                self._ends = True
            else:
                task()
            del task

    def _goes_on(self) -> bool:
        with self._lock:
            self._has_ended = self._ends and self._tasks.empty()
            return not self._has_ended

    def do(self, task: Callable[[], None]) -> bool:
        """Have `task` called, which raises nothing; False when all threads go on already."""
        with self._lock:
            if not self._has_ended:
                self._tasks.put(task)
            return not self._has_ended

    def go_on(self) -> None:
        """Let all threads go on, after the tasks that have been given."""
        self._tasks.put(None)


class ClientDebugger(Bdb):
    """`bdb.Bdb` whose stops wait for a client."""

    replaces_prompts = True

    def __init__(self, front: Front) -> None:
        super().__init__()
        self._front = front
        self._own = threading.local()
        self._entry_thread_id: int | None = None
        self._targets: dict[int, tuple[FrameType, int]] = {}     # thread id -> frame and call that it is to step into
        self.stop: Stop | None = None         # the one that there is now
        self.rest: Stop | None = None         # of the other threads, while some go on alone
        self.shows_return_values = True

    # -- beginning and ending -----------------------------------------------------------------

    def begin(self) -> None:
        """Events from now on; nothing is stopped yet."""
        self.reset()
        self.quitting = False
        self.stop_states.own().run_freely()
        self.start_trace()

    def set_own_code(self, just_my_code: bool, rules: list[Rule]) -> None:
        """Which code steps pass by, and which exceptions raised there are passed by."""
        set_rules(rules, decides_by_place=just_my_code)
        self.just_my_code = just_my_code or bool(rules)

    def await_code(self, is_wanted: bool) -> None:
        """Tell of new code from now on, or no longer."""
        self.awaits_code = is_wanted
        monitor.needs_changed(self)

    def tell_of_threads(self, tell: Tell | None) -> None:
        """Have `tell` called as threads begin and end, and for those that there are; with None no longer.  MonitorError."""
        self.awaits_threads = tell is not None
        try:
            monitor.needs_changed(self)
        except MonitorError:
            self.awaits_threads = False
            raise
        monitor.suspension.tell_of_threads(tell)

    def code_is_new(self, code: CodeType) -> None:
        self._front.on_new_code(code)

    def end(self) -> None:
        """The program goes on alone: no breakpoint holds, and no thread is stepped."""
        self.awaits_code = self.awaits_threads = False
        monitor.suspension.tell_of_threads(None)
        self.set_own_code(False, [])
        if self.rest is not None:
            self.end_rest(self.rest)
        monitor.suspension.let_all()
        self.clear_all_breaks()
        for state in self.stop_states.all():
            state.run_freely()
        standard_pdb.give_up()
        monitor.stop(self)

    def stop_at_entry(self) -> None:
        """The calling thread stops at its next line of the program."""
        self._entry_thread_id = threading.get_ident()
        self.set_step()

    def start_trace(self) -> None:
        standard_pdb.take_over()
        super().start_trace()

    def set_trace(self, frame: FrameType | None = None, **pdbs_own: Any) -> None:
        """The calling thread stops at the next line of `frame`, as if a breakpoint were there."""
        self._own.was_asked = True
        super().set_trace(sys._getframe().f_back if frame is None else frame)

    def main_has_ended(self) -> None:
        """The main thread is stepped no more; others may be."""
        self.stop_states.own().run_freely()
        monitor.needs_changed(self)

    # -- what the engine calls -------------------------------------------------------------------

    def user_line(self, frame: FrameType) -> None:
        thread_id = threading.get_ident()
        if not self.stop_here(frame):         # so a breakpoint it was
            number = self.__dict__["currentbp"]
            span = getattr(self.get_bpbynumber(number), "span", None)
            self._wait(Stop(thread_id, frame, "breakpoint", breakpoint_number=number, column=span and span[1]))
        elif getattr(self._own, "was_asked", False):
            self._own.was_asked = False
            self._wait(Stop(thread_id, frame, "breakpoint"))
        elif self._entry_thread_id == thread_id:
            self._entry_thread_id = None
            self._wait(Stop(thread_id, frame, "entry"))
        elif not self._goes_on_to_target(thread_id, frame):
            self._wait(Stop(thread_id, frame, "step"))

    def _goes_on_to_target(self, thread_id: int, frame: FrameType) -> bool:
        """Whether the step into one call of a line has come into another one, which it leaves again."""
        origin, offset = self._targets.get(thread_id, (None, 0))
        inner: FrameType | None = frame
        while inner is not None and inner.f_back is not origin:
            inner = inner.f_back
        if origin is None or inner is None or frame is origin \
                or offset <= origin.f_lasti < end_of_instruction(origin.f_code, offset):
            self._targets.pop(thread_id, None)
            return False
        self.set_return(inner)
        return True

    def user_return(self, frame: FrameType, value: Any) -> None:
        """A stepped function ends: the user sees its caller, in the line of the call."""
        if threading.get_ident() in self._targets:
            self.set_step()                   # it was not the one to step into
            return
        caller = frame.f_back
        while caller is not None and optmonitoring.IsInternalFrame(caller):
            caller = caller.f_back
        if caller is None:                   # the thread, or the program, ends
            self.set_continue()
            return
        returned = [(frame.f_code.co_qualname, value)] if self.shows_return_values else []
        self._wait(Stop(threading.get_ident(), caller, "step", returned=returned))

    def user_log(self, frame: FrameType, breakpoint: bdb.Breakpoint, text: str) -> None:
        self._front.on_log(frame, text)

    def others_were_let_go(self) -> None:
        self._front.on_let_go()

    def user_watch(self, frame: FrameType, changes: list[Change]) -> None:
        self._wait(Stop(threading.get_ident(), frame, "data breakpoint", changes=changes,
                        breakpoint_number=changes[0].watch.number))

    def user_watch_end(self, frame: FrameType, watch: Watch) -> None:
        self._front.on_watch_end(watch)

    def user_exception(self, frame: FrameType, exc_info: Any) -> None:
        """Nothing: the step goes on to where the exception is handled."""

    def user_raised(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self._wait(Stop(threading.get_ident(), frame, "exception", type(exception).__name__, exception=exception))

    def user_uncaught(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self._wait_after(frame, exception, None)

    def user_unhandled(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self._wait_after(frame, exception, frame)

    def _wait_after(self, frame: FrameType, exception: BaseException, below: FrameType | None) -> None:
        """A stop where an exception came from, which has left these frames."""
        traceback = exception.__traceback__
        while traceback is not None and traceback.tb_next is not None:
            traceback = traceback.tb_next
        self._wait(Stop(threading.get_ident(), traceback.tb_frame if traceback else frame, "exception",
                        type(exception).__name__, exception=exception, is_uncaught=True, below=below))

    def main_raised(self, exception: BaseException, frame: FrameType) -> None:
        """An exception ends the main thread; it is reported when this returns."""
        if monitor.debugger is not self:
            return
        rule = self.exception_stops.rule_for_uncaught(exception)
        if rule is not None:
            with monitor.turn.lock:
                self.user_uncaught(frame, exception, rule)

    def give_locals_back(self, frame: FrameType) -> None:
        """In the stopped thread: the variables of `frame` are what `frame.f_locals` is now."""
        compat.give_locals_back(frame, is_last=self.stop_states.own().stopped_frame is not frame)

    # -- stops ----------------------------------------------------------------------------------

    def muted(self, call: Callable[[], object]) -> None:
        """Call it in a thread of the program, whose breakpoints may be in what it uses of the standard library."""
        state = self.stop_states.own()
        muted, state.is_muted = state.is_muted, True
        try:
            call()
        finally:
            state.is_muted = muted

    def _wait(self, stop: Stop) -> None:
        """In the thread of an event: hold all others, and do what the client asks for."""
        self.muted(lambda: self._wait_muted(stop))

    def _wait_muted(self, stop: Stop) -> None:
        with monitor.turn.lock, monitor.suspension.others_held():
            self._take_passed_returns(stop)
            rest, self.rest, self.stop = self.rest, None, stop
            if rest is not None:
                rest.go_on()
            self._targets.pop(stop.thread_id, None)
            try:
                if self._front.on_stop(stop):
                    stop.run()
                else:
                    self.set_continue()
            finally:
                if stop.only is not None:
                    self._begin_rest(stop)
                self.stop = None
            self._front.on_went_on(stop)

    @staticmethod
    def _take_passed_returns(stop: Stop) -> None:
        """What the step has passed over that ends here."""
        step = monitor.returns.end().get(stop.thread_id)
        if step is None or not step.values:
            return
        stop.returned[:0] = step.values
        if stop.reason != "step":             # it ends early, and its frame may still be there
            frame = stop.frame
            while frame is not None and not step.is_in(frame):
                frame = frame.f_back
            stop.returned_to = frame

    def pause(self, thread_id: int) -> None:
        """Hold all threads now, those in C code when they come back; where `thread_id` is, is what the user sees."""
        _thread.start_new_thread(self._run_pause, (thread_id,))

    def _run_pause(self, thread_id: int) -> None:
        monitor.suspension.adopt_thread()
        if not self._take_turn():
            return                            # a thread has stopped by itself
        try:
            with monitor.suspension.others_held():
                frame = self._settled_frame(thread_id)
                self._wait(Stop(thread_id, frame, "pause"))
        finally:
            monitor.turn.lock.release()

    def _take_turn(self) -> bool:
        """Have the turn, unless there is a stop already."""
        while self.stop is None:
            if monitor.turn.lock.acquire(timeout=_TURN_SECONDS):
                return True
        return False

    @staticmethod
    def _settled_frame(thread_id: int) -> FrameType | None:
        """Where a thread stands that is being held: soon at its lock, unless it is inside C code."""
        pause = threading.Event()
        for _ in range(20):
            if monitor.suspension.is_waiting(thread_id):
                break
            pause.wait(0.005)
        return debugged_frames().get(thread_id)

    def in_turn(self, task: Callable[[], None]) -> None:
        """Have `task` called where breakpoints may be changed: in the stopped thread, or here and now."""
        while True:
            stop = self.stop
            if stop is not None and stop.do(task):
                return
            if monitor.turn.lock.acquire(timeout=_TURN_SECONDS):
                try:
                    task()
                finally:
                    monitor.turn.lock.release()
                return

    # -- one thread alone --------------------------------------------------------------------------

    def _begin_rest(self, stop: Stop) -> None:
        """One thread goes on, the others stay held: a thread of the debugger's own does what the client asks for."""
        is_held = stop.thread_id != stop.only
        self.rest = rest = Stop(stop.thread_id, stop.frame if is_held else None, "pause",
                                exception=stop.exception if is_held else None, is_uncaught=stop.is_uncaught, below=stop.below)
        rest.is_rest = True
        _thread.start_new_thread(self._run_rest, (rest,))
        _thread.start_new_thread(self._watch_alone, (rest,))

    def _run_rest(self, rest: Stop) -> None:
        monitor.suspension.adopt_thread()
        rest.run()
        if self.rest is rest:
            self.rest = None

    def _watch_alone(self, rest: Stop) -> None:
        """All go on when the thread that runs alone has ended: nobody else could let them."""
        monitor.suspension.adopt_thread()
        pause = threading.Event()
        while self.rest is rest:
            pause.wait(_TURN_SECONDS)
            if monitor.suspension.alone.isdisjoint(debugged_frames()) and monitor.turn.lock.acquire(timeout=_TURN_SECONDS):
                try:
                    if self.rest is rest and monitor.suspension.alone.isdisjoint(debugged_frames()):
                        self.end_rest(rest)
                        self._front.on_all_go_on(rest)
                finally:
                    monitor.turn.lock.release()

    def let_go(self, stop: Stop, only: int | None) -> bool:
        """Whom the end of `stop` lets go on, all threads or one; False when this does not end it.

        Called by a task that `doer` has called.
        """
        suspension = monitor.suspension
        if not stop.is_rest:
            stop.only = only
            if only is not None:
                suspension.let_only(only)
            return True
        if only is not None:
            suspension.let_too(only)
            return False
        self.rest = None
        suspension.let_all()
        return True

    def end_rest(self, rest: Stop) -> None:
        """All threads go on; called with the turn."""
        if self.rest is rest:
            self.let_go(rest, None)
            rest.go_on()

    def doer(self, stop: Stop) -> Callable[[Callable[[], None]], object]:
        """What has tasks called that let threads of `stop` go on: beside a thread that runs they need the turn."""
        return self.in_turn if stop.is_rest else stop.do

    # -- going on --------------------------------------------------------------------------------

    def step(self, stop: Stop, thread_id: int, frame: FrameType, set_stop: Callable[[], None],
             target: int | None = None, passes_calls: bool = False) -> None:
        """A task of `stop`: `set_stop`, a method like `set_next`, is meant for `thread_id` at `frame`.

        `target`: the instruction of the call to step into.  `passes_calls`: what they return is shown after it.
        """
        if target is not None:
            self._targets[thread_id] = frame, target
        own_id = threading.get_ident()
        if thread_id == own_id:
            set_stop()
        else:
            if stop.thread_id == own_id:
                self.set_continue()           # the one that stopped goes on
            self._step_other(thread_id, frame, set_stop)
            self.note_held(self.stop_states.of(thread_id), frame)
        if passes_calls and self.shows_return_values:
            monitor.returns.begin(thread_id, frame)

    def end_thread(self, thread_id: int) -> None:
        """SystemExit is raised in a thread at its next event; a task of a stop, or with the turn.

        Not by the interpreter itself, at any instruction: that may be one of the debugger's.
        """
        if thread_id == threading.get_ident():
            monitor.raiser.raise_in_program(SystemExit())
            return
        self.stop_states.of(thread_id).error_to_raise = SystemExit()
        frame = debugged_frames().get(thread_id)
        if frame is not None:
            self._step_other(thread_id, frame, self.set_step)

    def _step_other(self, thread_id: int, frame: FrameType, set_stop: Callable[[], None]) -> None:
        self.stop_states.selected = state = self.stop_states.of(thread_id)
        try:
            set_stop()
        finally:
            self.stop_states.selected = None
        if not state.is_free:
            each: FrameType | None = frame
            while each is not None:
                state.trace(each)
                each = each.f_back
        self.stops_of_other_changed()
