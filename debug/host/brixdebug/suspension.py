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


def is_threading_code(frame):
    """Where a thread has locks that others need to start one, to end one or to list them."""
    return frame.f_code.co_filename == threading.__file__


class SuspendLock:
    """Stands as the lock of one thread's record: a gate; tells whether the thread waits at it."""

    def __init__(self, on_interruption):
        self._on_interruption = on_interruption
        self._gate = None                     # a lock for each time that it is closed
        self.has_waiter = False

    def close(self):
        """Hold the thread from its next event on.  Called by another thread, or by itself."""
        if self._gate is None:
            gate = threading.Lock()
            gate.acquire()
            self._gate = gate

    def open(self):
        """Let it go on, to its next event at least."""
        gate, self._gate = self._gate, None
        if gate is not None:
            gate.release()

    # The two that the filter calls, in the thread that is held.

    def acquire(self):
        """Wait for the gate.  What the handler of a signal raises meanwhile has to wait too."""
        if is_threading_code(sys._getframe(1)):
            return                            # it goes on until it is out of there
        interruption = None
        self.has_waiter = True
        gate = self._gate
        while gate is not None and gate is self._gate:
            try:
                gate.acquire()
            except BaseException as error:
                interruption = error
        self.has_waiter = False
        if interruption is not None:
            self._on_interruption(interruption)

    def release(self):
        """Nothing is to be given back: the gate has no owner."""


class _OwnThread:
    """Enters a thread's id in a set as long as the thread lives: ids are used again."""

    def __init__(self, thread_ids, thread_id):
        self._thread_ids = thread_ids
        self._thread_id = thread_id
        thread_ids.add(thread_id)

    def __del__(self):
        self._thread_ids.discard(self._thread_id)


class Suspension:
    """Holds the other threads, and knows all of them by a number and a name."""

    def __init__(self, monitor):
        self._monitor = monitor
        self._depth = 0
        self.holder = None                    # id of the thread at the prompt, which is not held
        self._held = []                       # records of the threads that are
        self._records = set()                 # of code that they run
        self.is_ending_all = False            # every thread ends at its next event
        self.own_thread_ids = set()           # threads of a debugger: never debugged
        self._own = threading.local()

    # -- hooks of the per-thread records ------------------------------------------

    def install_hooks(self):
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(self._on_new_thread)
        per_thread.SetDebugPolicyCallback(self._debug_policy)
        per_thread.SetGetThreadNameCallback(self._name_of_record)

    def remove_hooks(self):
        per_thread = optmonitoring.CPerThread
        per_thread.SetNewPerThreadCreatedCallback(None)
        per_thread.SetDebugPolicyCallback(None)
        per_thread.SetGetThreadNameCallback(None)

    def _debug_policy(self, thread_id):
        if thread_id not in self.own_thread_ids:
            return 1
        optmonitoring.dprintf(
            optmonitoring.kLogBreakpoints,
            lambda: "thread %d is the debugger's own: no breakpoint holds there\n" % thread_id)
        return 0

    def adopt_thread(self):
        """The calling thread is the debugger's own from now on: it is not stopped, and not held."""
        thread_id = threading.get_ident()
        self._own.thread = _OwnThread(self.own_thread_ids, thread_id)
        optmonitoring.CPerThread.GetPerThread(thread_id).fDebugPolicy = self._debug_policy(thread_id)

    def _name_of_record(self, per_thread):
        """None, to be asked again, for a thread that is only being entered in the list of threads."""
        frame = optmonitoring.GetNonInternalFrame()
        if per_thread.fThreadId not in threading._active and frame is not None \
                and is_threading_code(frame):
            return None
        return self.thread_name(per_thread.fThreadId)

    @staticmethod
    def thread_name(thread_id):
        thread = threading._active.get(thread_id)
        return thread.name if thread is not None else "thread %d" % thread_id

    def _on_new_thread(self, per_thread):
        try:
            self._give_lock(per_thread)
            if self._depth and per_thread.fThreadId != self.holder:
                self._hold(per_thread)
        except Exception:
            dlog.LogException("a new thread")

    def _give_lock(self, per_thread):
        per_thread.fSuspendLock = SuspendLock(self._monitor.reporter.raise_in_program)

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
        self.holder = threading.get_ident()
        if self._monitor.debugger is not None:    # else no event would reach a thread
            self._monitor.refresh()
            self._hold_all()

    def _hold_all(self):
        for thread_id in sys._current_frames():
            if thread_id != self.holder and thread_id not in self.own_thread_ids:
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
        self._monitor.rearm()

    def end_all(self):
        """From now on every thread gets an event soon, to end at."""
        self.is_ending_all = True
        self._monitor.refresh()
        self._watch_running_code()

    def _hold(self, per_thread):
        if per_thread in self._held:
            return
        if not isinstance(per_thread.fSuspendLock, SuspendLock):
            self._give_lock(per_thread)           # it was made before the hook was set
        per_thread.fSuspendLock.close()
        per_thread.fCheckSuspendLock = 1
        self._held.append(per_thread)

    def _end(self):
        self._depth -= 1
        if self._depth:
            return
        self.holder = None
        self._monitor.set_any_suspended(0)
        held, self._held = self._held, []
        if not self.is_ending_all:
            self.forget_running_code()
        for per_thread in held:
            per_thread.fCheckSuspendLock = 0
            per_thread.fSuspendLock.open()
        self._monitor.needs_changed(self._monitor.debugger)

    def forget_running_code(self):
        records, self._records = self._records, set()
        for record in records:
            self._monitor.apply(record)

    def local_events(self, record):
        """What one code object needs so that threads in it are held."""
        return _HOLD_LOCAL_EVENTS if record in self._records else 0

    def is_waiting(self, thread_id):
        """True when the thread stands at its lock, or waits to report an event."""
        if thread_id in self._monitor.reporter.waiting_thread_ids:
            return True
        per_thread = optmonitoring.CPerThread.GetPerThread(thread_id, False)
        lock = per_thread.fSuspendLock if per_thread is not None else None
        return isinstance(lock, SuspendLock) and lock.has_waiter

    def forget_other_threads(self):
        """After a fork, in the child: nobody is left to be held, or to let go."""
        self._held = []
        if self.holder != threading.get_ident():
            self._depth = 0
            self.holder = None
        self.forget_running_code()
        self._monitor.set_any_suspended(0)
