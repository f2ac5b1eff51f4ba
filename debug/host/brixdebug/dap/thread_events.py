"""The client gets an event for each of the program's threads as it begins and as it ends.

Who begins or ends only notes that.  A thread of the debugger's own tells the client, of all that has come in a moment
together, or the thread that stops, before it tells of its stop.
"""

from __future__ import annotations

import _thread
import atexit
import collections
import contextlib
import queue
import threading

from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from brixdebug.dap.stopping import ClientDebugger
    from brixdebug.dap.tree import Tree
    from brixdebug.dap.wire import Wire
    from typing import Any

    from brixdebug.lives import Life

_GATHER_SECONDS = 0.02        # from the first news until all are sent


class ThreadEvents:
    """`thread` events of one session: each thread has one when it begins and one when it has ended."""

    def __init__(self, debugger: ClientDebugger, tree: Tree, wire: Wire) -> None:
        self._debugger = debugger
        self._tree = tree
        self._wire = wire
        self._news: collections.deque[tuple[int, object, bool]] = collections.deque()
        self._bell: queue.SimpleQueue[bool] = queue.SimpleQueue()        # True: the end
        self._telling = threading.Lock()
        self._is_rung = False                        # who notes something need not do it: `drain` is still to come
        self._known: dict[int, object] = {}          # ids of threads that there are -> keys of their lives
        self._has_ended = False

    def begin(self) -> None:
        """Those that there are come first."""
        with contextlib.suppress(RuntimeError):      # another tool has the events, or there can be no further thread
            self._debugger.tell_of_threads(self._note)
            atexit.register(self.end)
            _thread.start_new_thread(self._run, ())

    def end(self) -> None:
        """The program ends, and its threads with it, the main one last."""
        self._debugger.muted(self._end)

    def _end(self) -> None:
        self.drain()
        with self._telling:
            self._wire.send_all([self._ended(each) for each in list(self._known) if each != threading.main_thread().ident])
        self.forget()

    def forget(self) -> None:
        """Nothing is sent any more."""
        self._has_ended = True
        atexit.unregister(self.end)
        self._bell.put(True)

    def drain(self) -> None:
        """Send what there is to send."""
        with self._telling:
            events: list[dict[str, Any]] = []
            while self._news and not self._has_ended:
                events += self._events_of(*self._news.popleft())
            self._wire.send_all(events)

    def _note(self, life: Life, has_begun: bool) -> None:
        if not self._has_ended:
            self._news.append((life.thread_id, life.key, has_begun))
            if not self._is_rung:
                self._is_rung = True
                self._bell.put(False)

    def _run(self) -> None:
        monitor.suspension.adopt_thread()
        pause = threading.Event()
        while not self._bell.get():
            pause.wait(_GATHER_SECONDS)
            self._is_rung = False                    # first: what comes now rings again, or is drained
            self.drain()

    def _events_of(self, thread_id: int, key: object, has_begun: bool) -> list[dict[str, Any]]:
        known = self._known.get(thread_id)
        events = []
        # The end of a thread whose id is another one's by now may come late.
        if has_begun and known is not None or known is key:
            events.append(self._ended(thread_id))
        if has_begun:
            self._known[thread_id] = key
            events.append(self._event("started", thread_id))
        return events

    def _ended(self, thread_id: int) -> dict[str, Any]:
        del self._known[thread_id]
        event = self._event("exited", thread_id)
        self._tree.numbers.forget(thread_id)
        return event

    def _event(self, reason: str, thread_id: int) -> dict[str, Any]:
        return {"type": "event", "event": "thread",
                "body": {"reason": reason, "threadId": self._tree.thread_number(thread_id)}}
