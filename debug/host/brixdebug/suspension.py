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
        self.own_thread_ids = set()           # threads of a debugger: never debugged

    # -- hooks of the per-thread records ------------------------------------------

    def install_hooks(self):
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(self._on_new_thread)
        per_thread.SetDebugPolicyCallback(self._debug_policy)
        per_thread.SetGetThreadNameCallback(self._thread_name)

    def remove_hooks(self):
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(None)
        per_thread.SetDebugPolicyCallback(None)
        per_thread.SetGetThreadNameCallback(None)

    def _debug_policy(self, thread_id):
        return 0 if thread_id in self.own_thread_ids else 1

    @staticmethod
    def _thread_name(per_thread):
        thread = threading._active.get(per_thread.fThreadId)
        return thread.name if thread is not None else "thread %d" % per_thread.fThreadId

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
        return self._depth > 0

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
        frames = sys._current_frames()
        for thread_id, frame in frames.items():
            if thread_id == self._holder or thread_id in self.own_thread_ids:
                continue
            self._hold(optmonitoring.CPerThread.GetPerThread(thread_id))
            while frame is not None:
                record = optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame)
                if record is not None and not record.fIsInternal:
                    self._records.add(record)
                frame = frame.f_back
        self._monitor.set_any_suspended(1)
        for record in self._records:
            self._monitor.apply(record)
        sys.monitoring.restart_events()

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
        records, self._records = self._records, set()
        for record in records:
            self._monitor.apply(record)
        for per_thread in held:
            per_thread.fCheckSuspendLock = 0
            per_thread.fSuspendLock.open()

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
