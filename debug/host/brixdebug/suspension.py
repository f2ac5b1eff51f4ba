"""While one thread is at the prompt the others stand still.

Each thread has a lock in its record, and the filter passes through it at the
thread's next event when the record says so.  A thread that is inside C code goes
on until it comes back to Python code.
"""

from __future__ import annotations

import contextlib
import sys
import threading

import optmonitoring
from brixbase import dlog

from brixdebug import log
from brixdebug.evaluation import Evaluation
from brixdebug.lives import Life
from brixdebug.locks import ARE_PARALLEL
from brixdebug.records import record_of, thread_id_of
from brixdebug.switches import program_frame

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable
    from types import FrameType
    from typing import Any

    from optmonitoring import CPerCodeObject, CPerThread

    from brixdebug.lives import Tell
    from brixdebug.raising import Raiser
    from brixdebug.switches import Switches
    from brixdebug.turn import Turn

_threading: Any = threading            # its table of running threads has no public name

own_thread_ids: set[int] = set()       # of the debugger's own threads: never debugged

_LOOKS_AT_FRAMES = 10 if ARE_PARALLEL else 1


def debugged_frames() -> dict[int, FrameType]:
    """The topmost frame of each thread that is not the debugger's own, by thread id.

    Where threads run at the same time, a frame of ours that ends on its thread as it is looked at has nothing behind it for a
    moment: then all are looked at again.
    """
    frames: dict[int, FrameType] = {}
    frame: FrameType | None
    for _ in range(_LOOKS_AT_FRAMES):
        are_all_seen = True
        for thread_id, frame in sys._current_frames().items():
            if thread_id in own_thread_ids or thread_id in frames:
                continue
            while frame is not None and optmonitoring.IsInternalFrame(frame):
                frame = frame.f_back
            if frame is not None:
                frames[thread_id] = frame
            else:
                are_all_seen = False
        if are_all_seen:
            break
    return frames


def _add_records(frame: FrameType | None, records: dict[CPerCodeObject, bool]) -> None:
    """Add those of the code that a stack of frames runs, but for the debugger's own."""
    while frame is not None:
        record = record_of(frame)
        if record is not None and not record.fIsInternal:
            records[record] = True
        frame = frame.f_back


def _thread_object(frame: FrameType | None, method: str) -> object:
    """The `threading.Thread` whose `method` the stack of `frame` is in; None when it is in none."""
    while frame is not None:
        if frame.f_code.co_name == method and is_threading_code(frame):
            return frame.f_locals.get("self")
        frame = frame.f_back
    return None


def is_threading_code(frame: FrameType) -> bool:
    """Where a thread has locks that others need to start one, to end one or to list them."""
    return frame.f_code.co_filename == threading.__file__


def ends_by_itself(frame: FrameType) -> bool:
    """Where a thread must not be ended: others wait for what it does next.

    A worker of an executor that ends on its own way lets the next one do so.
    """
    return is_threading_code(frame) or frame.f_globals.get("__name__") == "concurrent.futures.thread"


def is_daemon(thread_id: int) -> bool:
    """The interpreter's end does not wait for this thread, which may serve the others up to then."""
    return getattr(_threading._active.get(thread_id), "_daemonic", False)


def suspend_lock_of(per_thread: CPerThread | None) -> SuspendLock | None:
    """The lock in a thread's record; None when it has none of ours, or the thread has ended."""
    lock = getattr(per_thread, "fSuspendLock", None)
    return lock if isinstance(lock, SuspendLock) else None


class SuspendLock:
    """Stands as the lock of one thread's record: a gate; tells whether the thread waits at it."""

    def __init__(self, evaluation: Evaluation, on_interruption: Callable[[BaseException], object],
                 is_muted: Callable[[], bool]) -> None:
        self._evaluation = evaluation
        self._on_interruption = on_interruption
        self._is_muted = is_muted
        self._gate: threading.Lock | None = None      # one for each time that it is closed
        self._waited_at: threading.Lock | None = None
        self.is_watching = False              # the waiter looks at the clock
        self.lives: dict[Tell, Life] = {}     # who knows of this thread; goes with its record

    @property
    def has_waiter(self) -> bool:
        """False as well for a thread that has been let go and has not woken yet: it runs first."""
        gate = self._gate
        return gate is not None and gate is self._waited_at

    def close(self) -> None:
        """Hold the thread from its next event on.  Called by another thread, or by itself."""
        if self._gate is None:
            gate = threading.Lock()
            gate.acquire()
            self._gate = gate

    def open(self) -> None:
        """Let it go on, to its next event at least."""
        gate, self._gate = self._gate, None
        self._knock(gate)

    def wake(self) -> None:
        """Have the waiter ask how long it is to wait."""
        self._knock(self._gate)

    @staticmethod
    def _knock(gate: threading.Lock | None) -> None:
        if gate is not None:
            with contextlib.suppress(RuntimeError):   # a knock that has not been heard yet
                gate.release()

    # The two that the filter calls, in the thread that is held.

    def acquire(self) -> None:
        """Wait for the gate.  What the handler of a signal raises meanwhile has to wait too."""
        if is_threading_code(program_frame(sys._getframe(1))) or self._is_muted():
            return                            # it goes on until it is out of there: others need what it has locked
        interruption = None
        gate = self._waited_at = self._gate
        while gate is not None and gate is self._gate:
            try:
                self._wait(gate)
            except BaseException as error:
                if not isinstance(error, KeyboardInterrupt) or not self._evaluation.interrupt():
                    interruption = error
        self._waited_at = None
        if interruption is not None:
            self._on_interruption(interruption)

    def _wait(self, gate: threading.Lock) -> None:
        """Until somebody knocks, or an expression at the prompt has taken too long."""
        seconds = self._evaluation.patience()
        self.is_watching = seconds >= 0
        try:
            if not gate.acquire(timeout=seconds):
                self._evaluation.lose_patience()
        finally:
            self.is_watching = False

    def release(self) -> None:
        """Nothing is to be given back: the gate has no owner."""


class _OwnThread:
    """Enters a thread's id in a set as long as the thread lives: ids are used again."""

    def __init__(self, thread_ids: set[int], thread_id: int) -> None:
        self._thread_ids = thread_ids
        self._thread_id = thread_id
        thread_ids.add(thread_id)

    def __del__(self) -> None:
        self._thread_ids.discard(self._thread_id)


class _OthersHeld:
    """What `Suspension.others_held` returns."""

    def __init__(self, suspension: Suspension, at_once: bool) -> None:
        self._suspension = suspension
        self._at_once = at_once

    def __enter__(self) -> None:
        self._suspension.begin(self._at_once)

    def __exit__(self, *exc_info: object) -> None:
        self._suspension.end()


class Suspension:
    """Holds the other threads, and knows all of them by a number and a name."""

    def __init__(self, switches: Switches, turn: Turn, raiser: Raiser,
                 begin: Callable[[], bool], end: Callable[[], None],
                 on_let_go: Callable[[], None], on_waiting: Callable[[int], None],
                 is_muted: Callable[[], bool]) -> None:
        """`begin` is called before threads are held: switches events on, False when nobody gets any.

        `end` is called when they go on: what is switched on may be less.  `on_let_go` is
        called when they go on for an expression that is evaluated at the prompt, `on_waiting`
        with the id of each that waits for its turn meanwhile.  `is_muted`: whether the calling
        thread is in the middle of the debugger's work.
        """
        self._is_muted = is_muted
        self._switches = switches
        self._turn = turn
        self._raiser = raiser
        self._begin_events = begin
        self._end_events = end
        self._depth = 0
        self._is_armed = False                # events are on to catch the other threads
        self.holder: int | None = None        # id of the thread at the prompt, which is not held
        self.held: dict[SuspendLock, CPerThread] = {}     # lock -> record, of the threads that are
        self._is_holding = True               # threads are held at all
        # Ids of the threads that run while all others stay held, between two stops; empty: all run.
        self.alone: set[int] = set()
        self._next_alone: int | None = None   # what is to be alone when the stop ends
        self.evaluation = Evaluation(self._wake_one, self._let_go, self._hold_again, on_let_go,
                                     lambda: turn.waiting_thread_ids, on_waiting)
        self.is_ending_all = False            # every thread ends at its next event
        self._starter_ids: set[int] = set()   # own threads that start further ones
        self._tell_of_threads: Tell | None = None
        self._own = threading.local()

    # -- hooks of the per-thread records ------------------------------------------

    def install_hooks(self) -> None:
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(self._on_new_thread)
        per_thread.SetDebugPolicyCallback(self._debug_policy)
        per_thread.SetGetThreadNameCallback(self._name_of_record)

    def remove_hooks(self) -> None:
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(None)
        per_thread.SetDebugPolicyCallback(None)
        per_thread.SetGetThreadNameCallback(None)

    def _debug_policy(self, thread_id: int) -> int:
        if thread_id not in own_thread_ids:
            return 1
        log.breakpoints(
            lambda: "thread %d is the debugger's own: no breakpoint holds there\n" % thread_id)
        return 0

    def adopt_thread(self, takes_started: bool = False) -> None:
        """The calling thread is the debugger's own from now on: it is not stopped, and not held.

        With `takes_started`, so are the threads that it starts.
        """
        self._enter_own(takes_started)        # first: the hook for new records has to see it
        thread_id = threading.get_ident()
        optmonitoring.CPerThread.GetPerThread(thread_id).fDebugPolicy = self._debug_policy(thread_id)

    @staticmethod
    def adopt_lasting_thread(thread_id: int) -> None:
        """Another thread, which lives as long as the process, is the debugger's own."""
        own_thread_ids.add(thread_id)

    def _enter_own(self, takes_started: bool) -> None:
        thread_id = threading.get_ident()
        self._own.entries = [_OwnThread(thread_ids, thread_id)
                             for thread_ids in ([own_thread_ids, self._starter_ids] if takes_started else [own_thread_ids])]

    def is_own_thread(self) -> bool:
        """The calling thread is one of the debugger's own."""
        return threading.get_ident() in own_thread_ids

    def _name_of_record(self, per_thread: CPerThread) -> str | None:
        """None, to be asked again, for a thread that is only being entered in the list of threads."""
        frame = optmonitoring.GetNonInternalFrame()
        if per_thread.fThreadId not in _threading._active and frame is not None \
                and is_threading_code(frame):
            return None
        return self.thread_name(per_thread.fThreadId)

    @staticmethod
    def thread_name(thread_id: int) -> str:
        thread: threading.Thread | None = _threading._active.get(thread_id)
        return thread.name if thread is not None else "thread %d" % thread_id

    def _on_new_thread(self, per_thread: CPerThread) -> None:
        try:
            self._lock_of(per_thread)
            if self._is_started_by_own_thread():
                self._enter_own(True)
                per_thread.fDebugPolicy = self._debug_policy(threading.get_ident())
            elif self._is_armed and self._is_holding and not self.evaluation.are_others_free \
                    and not self._runs(thread_id_of(per_thread)):
                self._hold(per_thread)
            if self._tell_of_threads is not None and thread_id_of(per_thread) == threading.get_ident():
                frame = optmonitoring.GetNonInternalFrame()
                if frame is not None and not is_threading_code(frame):
                    self.thread_lives(threading.get_ident())
        except Exception:
            dlog.LogException("a new thread")

    def _is_started_by_own_thread(self) -> bool:
        """True when the calling thread begins, and one that hands its ownership on waits in `start` for that."""
        if not self._starter_ids:
            return False
        frames = sys._current_frames()
        begun = _thread_object(frames.get(threading.get_ident()), "_bootstrap")
        return begun is not None and any(
            _thread_object(frames.get(thread_id), "start") is begun for thread_id in list(self._starter_ids))

    def _lock_of(self, per_thread: CPerThread) -> SuspendLock:
        """The lock in a thread's record, which has one from now on: it may have been made before the hook was set."""
        with self._switches.lock:             # the thread itself may be just here
            lock = suspend_lock_of(per_thread)
            if lock is None:
                lock = per_thread.fSuspendLock = SuspendLock(
                    self.evaluation, self._raiser.raise_in_program, self._is_muted)
        return lock

    # -- lives of threads -----------------------------------------------------------

    def tell_of_threads(self, tell: Tell | None) -> None:
        """`tell` is called when threads of the program begin and end, in any thread: it must not block.

        For those that there are it is called at once.  None: nothing is reported any longer.
        """
        self._tell_of_threads = tell
        for per_thread in optmonitoring.CPerThread.GetAllPerThreads() if tell is None else ():
            lock = suspend_lock_of(per_thread)
            if lock is not None:
                lock.lives.clear()
        self._look_for_threads()

    def _look_for_threads(self) -> None:
        if self._tell_of_threads is not None:
            for thread_id in reversed(debugged_frames()):    # the interpreter lists the newest first
                self.thread_lives(thread_id)

    def thread_lives(self, thread_id: int) -> None:
        """Whether there is such a thread."""
        tell = self._tell_of_threads
        if tell is None or thread_id in own_thread_ids:
            return
        per_thread = optmonitoring.CPerThread.GetPerThread(thread_id)
        if per_thread is None:                # it has ended meanwhile
            return
        lives = self._lock_of(per_thread).lives
        if tell not in lives:
            life = Life(thread_id, tell)
            if lives.setdefault(tell, life) is life:         # only one of two threads gets here
                life.begin()

    # -- holding --------------------------------------------------------------------

    @property
    def is_active(self) -> bool:
        """Events are needed in all code that runs."""
        return self._is_armed and self._is_holding or self.is_ending_all

    def others_held(self, at_once: bool = True) -> _OthersHeld:
        """Inside, no other thread gets past its next event.

        With `at_once` false, a thread that is the only one pays nothing for those that may
        come before it evaluates something; `hold_newcomers` looks for them.
        """
        return _OthersHeld(self, at_once)

    def begin(self, at_once: bool) -> None:
        if self._depth:
            self.evaluation.pause()           # first: a Ctrl-C may still come into it
        self._depth += 1
        if self._depth == 1:
            self.holder = threading.get_ident()
            if self.alone:                    # events are on already
                self.alone = set()
                self._hold_all()
                self._let_one_go(self.holder)
        if at_once or len(sys._current_frames()) > 1:
            self._arm()

    def hold_newcomers(self) -> None:
        """Hold the threads that have come since this one stopped; nothing when there are none."""
        if self._depth and not self._is_armed and len(sys._current_frames()) > 1:
            self._arm()

    def _arm(self) -> None:
        if self._is_armed:
            return
        self._is_armed = True
        self._switches.hold(self.is_active)
        if self._is_holding and self._begin_events():
            self._hold_all()

    @property
    def is_holding(self) -> bool:
        """Whether the other threads are held while one is at the prompt."""
        return self._is_holding

    @is_holding.setter
    def is_holding(self, value: bool) -> None:
        if self._is_holding == value:
            return
        self._is_holding = value
        self._switches.hold(self.is_active)
        if not value:
            self._let_go()
        elif not self._is_armed:
            self.hold_newcomers()
        elif self._begin_events():
            self._hold_all()

    def _runs(self, thread_id: int | None) -> bool:
        return thread_id == self.holder or thread_id in self.alone

    def _hold_all(self) -> None:
        for thread_id in sys._current_frames():
            if not self._runs(thread_id) and thread_id not in own_thread_ids:
                self._hold(optmonitoring.CPerThread.GetPerThread(thread_id))
        self._look_for_threads()
        self._switches.look_at_suspend_locks(True)
        self._watch_running_code()

    def _watch_running_code(self) -> None:
        """Have events of all code that other threads are in.

        Where they run at the same time all code has them already, see `Switches`.
        """
        frames = {} if ARE_PARALLEL else sys._current_frames()
        frames.pop(threading.get_ident(), None)
        self._watch_code_of(frames.values())

    def watch_own_code(self) -> None:
        """Have events of all code that the calling thread is in."""
        self._watch_code_of([sys._getframe()])

    def _watch_code_of(self, frames: Iterable[FrameType]) -> None:
        records: dict[CPerCodeObject, bool] = {}
        for frame in frames:
            _add_records(frame, records)
        with self._switches.lock:
            for record in records:
                self._switches.want(record, held=True)
            self._switches.rearm()

    def end_all(self) -> None:
        """From now on every thread gets an event soon, to end at."""
        self.is_ending_all = True
        self._switches.hold(True)
        self._begin_events()
        self._watch_running_code()
        self.watch_own_code()

    def end_session(self) -> None:
        """No thread is ended any longer."""
        self.is_ending_all = False
        self._switches.hold(self.is_active)

    def _hold(self, per_thread: CPerThread | None) -> None:
        if per_thread is None:                # it has ended meanwhile
            return
        with self._switches.lock:             # a new thread does so itself at the same time
            lock = self._lock_of(per_thread)
            if lock in self.held:
                return
            lock.close()
            per_thread.fCheckSuspendLock = 1
            self.held[lock] = per_thread

    def end(self) -> None:
        self._depth -= 1
        if self._depth:
            self.evaluation.resume()
            return
        if self.evaluation.is_used:
            self.evaluation.forget()
        self.holder = None
        if not self._is_armed:
            return
        alone, self._next_alone = self._next_alone, None
        if alone is not None and self._is_holding:
            self.alone = {alone}
            self._hold_all()
            self._let_one_go(alone)
        else:
            self._disarm()

    def _disarm(self) -> None:
        self._is_armed = False
        self._switches.hold(self.is_active)
        if not self.is_ending_all:
            self._switches.let_all_go()
        self._let_go()
        self._end_events()

    # -- one thread alone --------------------------------------------------------------

    def let_only(self, thread_id: int) -> None:
        """When the stop ends only this thread goes on, up to the next stop or `let_all`."""
        self._next_alone = thread_id

    def let_too(self, thread_id: int) -> None:
        """Another thread goes on beside those that run alone."""
        if self.alone:
            self.alone.add(thread_id)
            self._let_one_go(thread_id)

    def let_all(self) -> None:
        """No thread runs alone any longer."""
        self._next_alone = None
        if self.alone:
            self.alone = set()
            self._disarm()

    def _let_one_go(self, thread_id: int) -> None:
        lock = suspend_lock_of(optmonitoring.CPerThread.GetPerThread(thread_id, False))
        per_thread = self.held.pop(lock, None) if lock is not None else None
        if lock is not None and per_thread is not None:
            per_thread.fCheckSuspendLock = 0
            lock.open()

    def has_to_stand(self) -> bool:
        """Another thread runs alone, so the calling one reports nothing, and goes no further."""
        return bool(self.alone) and not self._depth and not self._turn.depth \
            and threading.get_ident() not in self.alone | own_thread_ids

    def stand(self) -> None:
        """Wait to be let go.  Called without the turn."""
        lock = suspend_lock_of(optmonitoring.CPerThread.GetPerThread(threading.get_ident()))
        if lock is not None:
            lock.acquire()

    def _let_go(self) -> None:
        """Every thread that is held goes on."""
        self._switches.look_at_suspend_locks(False)
        with self._switches.lock:             # a new thread may be just entering itself
            held, self.held = self.held, {}
        for lock, per_thread in held.items():
            per_thread.fCheckSuspendLock = 0
            lock.open()

    # -- while an expression is evaluated at the prompt ---------------------------------

    def _wake_one(self) -> None:
        """One thread that looks at the clock is enough; a thread that comes to its gate later does so too."""
        if self._depth:
            self._arm()                       # a thread that is started now is to be held
        waiting = [lock for lock in list(self.held) if lock.has_waiter]
        if not waiting and self._depth and len(debugged_frames()) > 1:
            self.evaluation.watch_clock(self.adopt_thread)
        elif waiting and not any(lock.is_watching for lock in waiting):
            waiting[0].wake()

    def _hold_again(self) -> None:
        if self._depth and self._is_holding and self._begin_events():
            self._hold_all()

    def is_waiting(self, thread_id: int) -> bool:
        """True when the thread stands at its lock, or waits to report an event."""
        if thread_id in self._turn.waiting_thread_ids:
            return True
        per_thread = optmonitoring.CPerThread.GetPerThread(thread_id, False)
        lock = suspend_lock_of(per_thread)
        return lock is not None and lock.has_waiter

    def forget_other_threads(self) -> None:
        """After a fork, in the child: nobody is left to be held, or to let go."""
        self._tell_of_threads = None
        self.alone = set()
        self._next_alone = None
        self.held = {}
        own_thread_ids.intersection_update({threading.get_ident()})
        if self.holder != threading.get_ident():
            self._depth = 0
            self._is_armed = False
            self.holder = None
            self.evaluation.forget()
        self._switches.hold(self.is_active)
        self._switches.let_all_go()
        self._switches.look_at_suspend_locks(False)
