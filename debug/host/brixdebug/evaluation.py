"""Expressions that are evaluated at the prompt, and what the held threads have to do with them.

An expression may need another thread: it waits for its result, or for a lock that it
has.  So one that has not ended after a second lets the held threads go on until it ends.
Each held thread looks at the clock while it stands at its gate.  Where the others are all
inside C code, or wait for their turn at the prompt, a thread of the debugger's own does.
"""

from __future__ import annotations

import _thread
import contextlib
import sys
import threading
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable
    from typing import Any, TypeVar

    T = TypeVar("T")

# How long an expression may take while the other threads are held.
SECONDS = 1.0

_FOREVER = -1.0

# What becomes of a Ctrl-C: while an expression begins, while it runs, and otherwise.
_NOTED, _RAISED, _REFUSED = "noted", "raised", "refused"


def _nothing() -> None:
    pass


class Evaluation:
    """What the thread at the prompt evaluates."""

    def __init__(self, wake: Callable[[], None], let_go: Callable[[], None],
                 hold_again: Callable[[], None], on_let_go: Callable[[], None],
                 waiting: Callable[[], Iterable[int]], on_waiting: Callable[[int], None]) -> None:
        """`wake` has one held thread ask for its patience again; `on_let_go` is called before all run.

        `waiting` gives the ids of the threads that wait for their turn at the prompt;
        `on_waiting` is called for each of them, once the others run.
        """
        self._wake = wake
        self._let_go = let_go
        self._hold_again = hold_again
        self._on_let_go = on_let_go
        self._waiting = waiting
        self._on_waiting = on_waiting
        self._ctypes: Any = None
        # For whoever shares the terminal: an expression begins, and the prompt comes next.
        self.on_begin: Callable[[], object] = _nothing
        self.on_end: Callable[[], object] = _nothing
        self.forget()

    def forget(self) -> None:
        """Nothing is evaluated."""
        self.is_used = False                  # since this was called
        self._lock: Any = _thread.RLock()     # a signal handler may come in between
        self._thread_id: int | None = None    # of the thread that evaluates
        self._depth = 0                       # its expressions inside expressions
        self._deadline: float | None = None
        self._interruptions = _REFUSED        # what becomes of a Ctrl-C
        self._is_noted = False
        self._is_raised = False               # and may have still to come
        self._serial = 0                      # counts expressions, and their parts between prompts
        self._clock: _Clock | None = None
        self._reported_ids: set[int] = set()  # of the threads that `on_waiting` was called for
        self.are_others_free = False
        self.were_others_free = False         # for whoever has to know it; takes it back

    def run(self, call: Callable[..., T], *args: Any) -> T:
        """What `call` returns or raises: it is the expression, or has it evaluated."""
        depth, self._depth = self._depth, self._depth + 1
        accepts = self._interruptions != _RAISED
        try:
            if depth == 0:
                self._begin()
            if accepts:
                self._accept_interruptions()
            return call(*args)
        finally:
            try:
                if accepts:
                    self._interruptions = _REFUSED      # also where one comes as the call begins
                    self._refuse_interruptions()
            finally:
                self._depth = depth
                if depth == 0:
                    self._thread_id = None
                    self._stop()

    def _begin(self) -> None:
        # Now, for the thread that interrupts may be held in the middle of either.
        import ctypes
        self._ctypes, _ = ctypes, ctypes.pythonapi.PyThreadState_SetAsyncExc
        self.is_used = True
        self._is_noted = False
        self._thread_id = _thread.get_ident()
        self._interruptions = _NOTED
        self._start()

    def _start(self) -> None:
        self.on_begin()
        self._deadline = time.monotonic() + SECONDS
        self._wake()

    def _stop(self) -> None:
        with self._lock:
            self._deadline = None
            self._serial += 1
            self._reported_ids = set()
            clock, self._clock = self._clock, None
            were_free, self.are_others_free = self.are_others_free, False
        if clock is not None:
            clock.stop()
        if were_free:
            self._hold_again()
        self.on_end()

    # -- a prompt inside an expression: what is evaluated runs a program under the debugger --

    def pause(self) -> None:
        """The others are held until `resume`, and a Ctrl-C is not for the expression."""
        if self._depth:
            self._refuse_interruptions()
            self._stop()

    def resume(self) -> None:
        """The expression goes on."""
        if self._depth:
            self._start()
            self._accept_interruptions()

    # -- for threads that are held ---------------------------------------------------------

    def patience(self) -> float:
        """How long a held thread waits before it asks again, in seconds; negative: until it is let go."""
        deadline = self._deadline
        if deadline is None:
            return _FOREVER
        return max(0.0, deadline - time.monotonic())

    def lose_patience(self) -> None:
        """Called by a held thread that has waited so long: all go on, if the expression has not ended."""
        with self._lock:
            if self._deadline is None or time.monotonic() < self._deadline:
                return
            self._deadline = None             # no other thread gets here for this expression
            serial = self._serial
        self._on_let_go()
        with self._lock:
            if self._serial == serial:
                self.are_others_free = self.were_others_free = True
                self._let_go()
        for thread_id in list(self._waiting()):
            self.waits_for_turn(thread_id)

    def watch_clock(self, adopt_thread: Callable[[], None]) -> None:
        """Have a thread of the debugger's own look at the clock: no other one does."""
        if self._clock is None:
            with contextlib.suppress(RuntimeError):       # no thread can be started
                self._clock = _Clock(self.lose_patience, adopt_thread)

    # -- for threads that wait for their turn ------------------------------------------------

    def waits_for_turn(self, thread_id: int) -> None:
        """A thread waits until the one at the prompt goes on: for ever, if the expression waits for it."""
        with self._lock:
            if not self.are_others_free or thread_id in self._reported_ids:
                return
            self._reported_ids.add(thread_id)
        self._on_waiting(thread_id)

    # -- Ctrl-C ----------------------------------------------------------------------------

    def interrupt(self) -> bool:
        """End the expression by a KeyboardInterrupt; False when there is none.  Called in any thread.

        It comes when the thread runs Python code.  A wait for a condition of `threading`, as
        in the `result` of a future, is ended for that; what else waits in C code goes on.
        What is done before an expression and after it is the debugger's own: nothing is raised there.
        """
        with self._lock:
            if self._interruptions == _NOTED:
                self._is_noted = True
            elif self._interruptions == _RAISED and self._thread_id is not None:
                self._is_raised = True
                self._raise_in(self._thread_id, KeyboardInterrupt)
                _end_wait(self._thread_id)
            else:
                return False
            return True

    def _accept_interruptions(self) -> None:
        with self._lock:
            self._interruptions = _RAISED
            is_noted, self._is_noted = self._is_noted, False
            if is_noted:
                raise KeyboardInterrupt

    def _refuse_interruptions(self) -> None:
        """What comes from now on comes too late, and what has not come yet is taken back."""
        self._interruptions = _REFUSED
        # Two may come in here: one that was on its way, and one of a thread that had just found the expression there.
        try:
            self._take_back()
        except KeyboardInterrupt:
            try:
                self._take_back()
            except KeyboardInterrupt:
                self._take_back()

    def _take_back(self) -> None:
        lock = self._lock
        try:
            if not lock._is_owned():          # it may be since one came
                lock.acquire()
            if self._is_raised:
                self._raise_in(_thread.get_ident(), None)
                self._is_raised = False
        finally:
            while lock._is_owned():
                lock.release()

    def _raise_in(self, thread_id: int, kind: type[BaseException] | None) -> None:
        """Have an exception raised in a thread; with None, take back one that has not come yet."""
        ctypes = self._ctypes
        ctypes.pythonapi.PyThreadState_SetAsyncExc(
            ctypes.c_ulong(thread_id), None if kind is None else ctypes.py_object(kind))


class _Clock:
    """A thread that calls a function after `SECONDS`, unless it is stopped before.

    It is no `threading.Thread`: the program's own list of threads stays its own.
    """

    def __init__(self, on_time: Callable[[], None], adopt_thread: Callable[[], None]) -> None:
        self._on_time = on_time
        self._adopt_thread = adopt_thread
        self._is_stopped = _thread.allocate_lock()
        self._is_stopped.acquire()
        _thread.start_new_thread(self._run, ())

    def _run(self) -> None:
        self._adopt_thread()
        if not self._is_stopped.acquire(timeout=SECONDS):
            self._on_time()

    def stop(self) -> None:
        self._is_stopped.release()


def _end_wait(thread_id: int) -> None:
    """Release the lock of the waiter; a condition ignores waiters that have gone, as after a signal."""
    frame = sys._current_frames().get(thread_id)
    if frame is not None and frame.f_code is threading.Condition.wait.__code__:
        waiter = frame.f_locals.get("waiter")
        if waiter is not None and waiter.locked():
            waiter.release()
