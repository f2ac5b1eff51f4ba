"""Stops the main thread where it is, when somebody asks for it in the handler of a signal.

A handler runs between any two instructions of the main thread, or inside C code that
waits: in the middle of the debugger's own work, of a write to the stream that the prompt
goes to, of an import.  So nothing is printed there, and nothing is decided: the wish is
noted, and the thread stops at its next event.  Should none come within a moment, a helper
thread knocks: it has the handler called again, which then finds

* the debugger's own code at work: it is knocked for again a moment later;
* the thread inside C code, since no event came meanwhile: it stops right there.
"""

from __future__ import annotations

import _thread
import signal
import threading

import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import FrameType
    from typing import Any

# A thread that runs Python code gets to an event within this time.
_EVENT_SECONDS = 0.05

_IMPORT_SYSTEM = ("<frozen importlib._bootstrap>", "<frozen importlib._bootstrap_external>", "<frozen zipimport>")


class Look:
    """One run of the handler of SIGINT, which the main thread alone calls; known to other threads by a number.

    Only attributes, changed without a call in between: nothing then comes between two of them.
    """

    def __init__(self) -> None:
        self.number = 0
        self.has_begun = False                # and has not ended
        self.used_up = 0                      # the last whose Ctrl-C was for a prompt that has ended since


look = Look()


class Interruption:
    """The wish to stop the main thread of a debugger's program, until that has stopped."""

    def __init__(self, stop_soon: Callable[[FrameType], object], stop_inside: Callable[[FrameType], object],
                 adopt_thread: Callable[[], object]) -> None:
        """`stop_soon` has the calling thread stop at its next event; `stop_inside` stops it at once.

        `adopt_thread` makes the calling thread one of the debugger's own.
        """
        self._adopt_thread = adopt_thread
        self._stop_soon = stop_soon
        self._stop_inside = stop_inside
        self.is_wanted = False
        self._is_armed = False                # the thread stops at its next event
        self._is_knock = False                # the helper thread has the handler called
        self._knocker: Any = None             # the lock that the helper thread waits for

    def take_knock(self) -> bool:
        """True when it is the helper thread that has the handler of the signal called."""
        is_knock, self._is_knock = self._is_knock, False
        return is_knock

    def want(self, frame: FrameType, is_at_work: bool, is_knock: bool) -> None:
        """Called by the handler of a signal, with its frame, and whether the debugger was at work."""
        if is_knock and not self.is_wanted:
            return                            # it has stopped meanwhile
        if self.is_wanted and not is_knock and self._knocker is not None:
            return                            # asked for twice in a row
        self.is_wanted = True
        if is_at_work or is_debuggers_code(frame):
            self._knock_later()
        elif self._is_armed:
            self._stop_inside(frame)
        else:
            self._arm(frame)
            self._knock_later()

    def at_end_of_event(self, frame: FrameType) -> None:
        """The thread goes on in `frame`: it was wanted while the debugger's own code ran."""
        if threading.get_ident() == threading.main_thread().ident and not self._is_armed:
            self._arm(frame)

    def end(self) -> bool:
        """The main thread has stopped; True when that was wanted."""
        was_wanted, self.is_wanted = self.is_wanted, False
        self._is_armed = False
        knocker, self._knocker = self._knocker, None
        if knocker is not None:
            knocker.release()
        return was_wanted

    def _arm(self, frame: FrameType) -> None:
        self._is_armed = True
        self._stop_soon(frame)

    def _knock_later(self) -> None:
        """In a thread of our own, which `threading` and the program know nothing of."""
        knocker = _thread.allocate_lock()
        knocker.acquire()
        self._knocker = knocker
        try:
            _thread.start_new_thread(self._knock, (knocker, signal.getsignal(signal.SIGINT)))
        except RuntimeError:                  # no more threads: the next event has to do
            self._knocker = None

    def _knock(self, knocker: Any, handler: object) -> None:
        self._adopt_thread()
        if knocker.acquire(True, _EVENT_SECONDS) or self._knocker is not knocker:
            return
        self._knocker = None
        # The program may have taken the signal for itself meanwhile.
        if signal.getsignal(signal.SIGINT) == handler:
            self.knock()

    def knock(self, ends_prompt: bool = False) -> None:
        """Have the handler of SIGINT called in the main thread: once, where a Ctrl-C has not been looked at yet.

        With `ends_prompt` one that is being looked at was for the prompt that ends, and no knock is needed.
        """
        # A real signal, for it ends what the thread waits for in the kernel.
        kill, thread_id, number = signal.pthread_kill, threading.main_thread().ident or 0, signal.SIGINT
        # Without a call in between, where the main thread could run the handler.
        if ends_prompt and look.has_begun:
            look.used_up = look.number
        else:
            self._is_knock = True
            kill(thread_id, number)


def is_debuggers_code(frame: FrameType | None) -> bool:
    """True for the debugger's own; imports are the program's work, though never stopped in."""
    while frame is not None and frame.f_code.co_filename in _IMPORT_SYSTEM:
        frame = frame.f_back
    return frame is not None and optmonitoring.IsInternalFrame(frame)
