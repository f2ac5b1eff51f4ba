"""While one thread is at the prompt the others stand still.

Each thread has a lock in its record, and the filter passes through it at the
thread's next event when the record says so.  A thread that is inside C code goes
on until it comes back to Python code.
"""

import contextlib
import sys
import threading

import optmonitoring
from brixbase import dlog

_events = sys.monitoring.events

# Enough to catch a thread in the loop that it is in.
_HOLD_LOCAL_EVENTS = _events.LINE | _events.PY_START | _events.JUMP


def debugged_frames():
    """The topmost frame of each thread that is not the debugger's own, by thread id."""
    frames = {}
    for thread_id, frame in sys._current_frames().items():
        while frame is not None and optmonitoring.IsInternalFrame(frame):
            frame = frame.f_back
        if frame is not None:
            frames[thread_id] = frame
    return frames


class SuspendLock:
    """The lock of one thread's record; tells whether the thread waits at it."""

    def __init__(self):
        self._lock = threading.Lock()
        self.has_waiter = False

    def close(self):
        """Hold the thread from its next event on.  Called by another thread, or by itself."""
        self._lock.acquire(blocking=False)

    def open(self):
        """Let it go on."""
        try:
            self._lock.release()
        except RuntimeError:
            pass                              # it is open

    # The two that the filter calls, in the thread that is held.

    def acquire(self):
        self.has_waiter = True
        try:
            self._lock.acquire()
        finally:
            self.has_waiter = False

    def release(self):
        self._lock.release()


class Suspension:
    """Holds the other threads, and knows all of them by a number and a name."""

    def __init__(self, monitor):
        self._monitor = monitor
        self._depth = 0
        self._holder = None                   # id of the thread that is not held
        self._held = []                       # records of the threads that are
        self._records = set()                 # of code that they run
        self.is_ending_all = False            # every thread ends at its next event
        self.own_thread_ids = set()           # threads of a debugger: never debugged

    # -- hooks of the per-thread records ------------------------------------------

    def install_hooks(self):
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(self._on_new_thread)
        per_thread.SetDebugPolicyCallback(self._debug_policy)
        per_thread.SetGetThreadNameCallback(
            lambda record: self.thread_name(record.fThreadId))

    def remove_hooks(self):
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(None)
        per_thread.SetDebugPolicyCallback(None)
        per_thread.SetGetThreadNameCallback(None)

    def _debug_policy(self, thread_id):
        return 0 if thread_id in self.own_thread_ids else 1

    @staticmethod
    def thread_name(thread_id):
        thread = threading._active.get(thread_id)
        return thread.name if thread is not None else "thread %d" % thread_id

    def _on_new_thread(self, per_thread):
        try:
            per_thread.fSuspendLock = SuspendLock()
            if self._depth and per_thread.fThreadId != self._holder:
                self._hold(per_thread)
        except Exception:
            dlog.LogException("a new thread")

    # -- holding --------------------------------------------------------------------

    @property
    def is_active(self):
        """Events are needed in all code that runs."""
        return self._depth > 0 or self.is_ending_all

    @contextlib.contextmanager
    def others_held(self):
        """Inside, no other thread gets past its next event."""
        self._begin()
        try:
            yield
        finally:
            self._end()

    def _begin(self):
        self._depth += 1
        if self._depth > 1:
            return
        self._holder = threading.get_ident()
        if self._monitor.debugger is None or len(sys._current_frames()) < 2:
            # No event would reach a thread, or there is none; one that is started now
            # is caught by _on_new_thread.
            return
        self._monitor.refresh()
        self._hold_all()

    def _hold_all(self):
        for thread_id in sys._current_frames():
            if thread_id != self._holder and thread_id not in self.own_thread_ids:
                self._hold(optmonitoring.CPerThread.GetPerThread(thread_id))
        self._monitor.set_any_suspended(1)
        self._watch_running_code()

    def _watch_running_code(self):
        """Have events of all code that other threads are in."""
        for thread_id, frame in sys._current_frames().items():
            while frame is not None and thread_id != threading.get_ident():
                record = optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame)
                if record is not None and not record.fIsInternal:
                    self._records.add(record)
                frame = frame.f_back
        for record in self._records:
            self._monitor.apply(record)
        sys.monitoring.restart_events()

    def end_all(self):
        """From now on every thread gets an event soon, to end at."""
        self.is_ending_all = True
        self._monitor.refresh()
        self._watch_running_code()

    def _hold(self, per_thread):
        if per_thread in self._held:
            return
        if not isinstance(per_thread.fSuspendLock, SuspendLock):
            per_thread.fSuspendLock = SuspendLock()       # made before the hook was set
        per_thread.fSuspendLock.close()
        per_thread.fCheckSuspendLock = 1
        self._held.append(per_thread)

    def _end(self):
        self._depth -= 1
        if self._depth:
            return
        self._holder = None
        self._monitor.set_any_suspended(0)
        held, self._held = self._held, []
        if not self.is_ending_all:
            self.forget_running_code()
        for per_thread in held:
            per_thread.fCheckSuspendLock = 0
            per_thread.fSuspendLock.open()

    def forget_running_code(self):
        records, self._records = self._records, set()
        for record in records:
            self._monitor.apply(record)

    def local_events(self, record):
        """What one code object needs so that threads in it are held."""
        return _HOLD_LOCAL_EVENTS if record in self._records else 0

    def is_waiting(self, thread_id):
        """True when the thread stands at its lock."""
        per_thread = optmonitoring.CPerThread.GetPerThread(thread_id, False)
        lock = per_thread.fSuspendLock if per_thread is not None else None
        return isinstance(lock, SuspendLock) and lock.has_waiter

    def forget_other_threads(self):
        """After a fork, in the child: nobody is left to be held, or to let go."""
        self._held = []
        self._records = set()
        self._depth = 0
        self._holder = None
        self._monitor.set_any_suspended(0)
