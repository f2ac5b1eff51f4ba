"""What each thread was told to stop at: one record per thread, and attributes that reach it.

`bdb.Bdb` keeps one set of fields that say where to stop next, because it follows
one thread.  Here every thread has its own: `next` in one thread is not disturbed
by a breakpoint in another.  A thread that was told nothing runs freely.
"""

import sys
import threading
import types
import weakref


class _Nowhere:
    """Stands for the frame that a freely running thread stops in: none at all."""

    f_code = types.SimpleNamespace(co_flags=0)


NOWHERE = _Nowhere()


class StopState:
    """The fields of `bdb.Bdb` that belong to one thread, with what they are at first."""

    botframe = NOWHERE
    stopframe = NOWHERE
    returnframe = None
    stoplineno = -1
    frame_returning = None
    enterframe = None
    cmdframe = None
    cmdlineno = None
    trace_opcodes = sys.version_info < (3, 13)     # where only the frame is asked

    stopped_frame = None      # the frame of the event, when it is one to stop at

    is_muted = False          # the thread runs the debugger's own code, outside of an event

    def __init__(self, thread_id):
        self.thread_id = thread_id
        self.stepped = {}         # record of a code object -> local events for stepping

    @property
    def is_free(self):
        """Only breakpoints stop the thread."""
        return self.stoplineno == -1 and self.stopframe is not None \
            and self.stopframe is self.botframe

    def run_freely(self):
        """Stop at breakpoints only."""
        self.stopframe = self.botframe = NOWHERE
        self.returnframe = None
        self.stoplineno = -1

    @property
    def stops_anywhere(self):
        """The thread stops at the next line, whatever code it is in."""
        return self.stopframe is None


class StopStates:
    """The records of all threads of one debugger."""

    def __init__(self):
        self.selected = None              # the record that attributes reach; None: the own one
        self._local = threading.local()   # keeps the record of a thread as long as the thread
        self._by_thread_id = {}           # weak references, without a callback: that would be
                                          # Python code at any moment, and reported
        self._waiting = {}                # made for a thread that has not asked yet

    def own(self):
        """The record of the calling thread."""
        try:
            return self._local.state
        except AttributeError:
            thread_id = threading.get_ident()
            state = self._waiting.pop(thread_id, None) or StopState(thread_id)
            self._local.state = state
            self._by_thread_id[thread_id] = weakref.ref(state)
            return state

    def reached(self):
        """The record that a debugger's attributes read and write now."""
        return self.selected or self.own()

    def of(self, thread_id):
        """The record of any thread."""
        if thread_id == threading.get_ident():
            return self.own()
        reference = self._by_thread_id.get(thread_id)
        state = reference() if reference is not None else self._waiting.get(thread_id)
        if state is None:
            state = self._waiting[thread_id] = StopState(thread_id)
        return state

    def all(self):
        """The records of all threads that live; forgets the others."""
        running = set(sys._current_frames())
        for thread_id in [each for each in self._waiting if each not in running]:
            self._waiting.pop(thread_id, None)
        states = list(self._waiting.values())
        for thread_id, reference in list(self._by_thread_id.items()):
            state = reference()
            if state is not None:
                states.append(state)
            elif self._by_thread_id.get(thread_id) is reference:
                del self._by_thread_id[thread_id]
        return states

    def keep_only_own(self):
        """After a fork, in the child: the other threads are gone."""
        own = self.own()
        self.selected = None
        self._by_thread_id = {own.thread_id: weakref.ref(own)}
        self._waiting = {}


class PerThread:
    """An attribute of a debugger that lives in the reached thread's record."""

    def __set_name__(self, owner, name):
        self._name = name

    def __get__(self, debugger, owner=None):
        if debugger is None:
            return self
        return getattr(debugger.stop_states.reached(), self._name)

    def __set__(self, debugger, value):
        setattr(debugger.stop_states.reached(), self._name, value)
