"""How a session ends, or begins again: `quit` and `restart` in any thread, a prompt without anybody to type."""

from __future__ import annotations

import pdb
import signal
import sys
import threading

from brixdebug import streams
from brixdebug.engine import Bdb, BdbQuit
from brixdebug.interrupts import is_debuggers_code
from brixdebug.locks import ARE_PARALLEL
from brixdebug.monitor import monitor
from brixdebug.suspension import debugged_frames

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import FrameType
    from typing import Any

    class _StandardDebugger(pdb.Pdb, Bdb):
        _user_requested_quit: bool
        nosigint: bool

        def _cmdloop(self) -> None: ...
else:
    _StandardDebugger = object


def hide_quit(show: Callable[[Any], object]) -> Callable[[Any], None]:
    """Threads that end because the user quits have nothing to report."""
    quit_type = BdbQuit                       # its name is cleared with the module while destructors still run

    def excepthook(args: Any) -> None:
        if args.exc_type is not quit_type:
            show(args)
    return excepthook


class Ends(_StandardDebugger):
    """The part of `Debugger` that ends a session."""

    # Whether this is the debugger of a command line, whose quit ends the program.
    _ends_program = False

    _is_nested = False            # made by the command `debug`, which a quit ends

    has_lost_input = False        # there is nobody to debug for
    _lost_input: Exception | None = None

    # -- a prompt without input --------------------------------------------------------------

    def _cmdloop(self) -> None:
        try:
            super()._cmdloop()
        except (RuntimeError, ValueError, OSError) as error:
            if not self.use_rawinput or sys.stdin is not None and not sys.stdin.closed:
                raise
            self._lost_input = error
            if not self._ends_program:
                raise                         # in the program, as with pdb
            self.message("")
            self.error("Standard input is closed: no command can be read")
            type(self).has_lost_input = self._user_requested_quit = True
            self.set_quit()

    def reaches_program(self, exception: BaseException) -> bool:
        return exception is self._lost_input

    # -- quit -----------------------------------------------------------------------------------

    def set_quit(self) -> None:
        is_alone = not debugged_frames().keys() - {threading.get_ident()}
        # pytest ends by an exception of its own.
        if not self._ends_program or self._is_nested \
                or is_alone and (monitor.debugger is not self or streams.exit_of_pytest() is not None):
            super().set_quit()
            return
        if monitor.debugger is None:          # at a post-mortem prompt, where no thread gets events
            self.start_trace()
            monitor.raiser.finished_thread_ids.add(threading.get_ident())
        # The other threads end too, each at its next event; this one again where the program catches its end.
        keeps_tracing, self._keeps_tracing = self._keeps_tracing, True
        try:
            super().set_quit()
        finally:
            self._keeps_tracing = keeps_tracing
        monitor.end_all_threads()
        kind = streams.exit_of_pytest()
        if kind is None:
            self._raise_in_main_thread(BdbQuit())
            return
        # It ends the run of the tests by itself, and finishes them; its hook would report the other threads.
        threading.excepthook = hide_quit(threading.excepthook)
        self._raise_in_main_thread(kind("Quitting debugger"))
        main_id: Any = threading.main_thread().ident
        monitor.raiser.finished_thread_ids.add(main_id)

    # -- restart ----------------------------------------------------------------------------------

    def do_run(self, arg: str) -> bool | None:
        try:
            return super().do_run(arg)
        except pdb.Restart as restart:
            if not self._ends_program or not self._raise_in_main_thread(restart):
                raise
        raise BdbQuit                         # this thread is of the run that ends

    do_restart = do_run

    def _raise_in_main_thread(self, error: BaseException) -> bool:
        """Have `error` raised in the main thread, wherever it is; False when it is the calling one."""
        main_id: Any = threading.main_thread().ident
        frame: FrameType | None = sys._current_frames().get(main_id)
        if main_id == threading.get_ident() or frame is None:
            return False
        state = self.stop_states.of(main_id)
        state.error_to_raise = error
        state.stop_anywhere()
        while frame is not None:
            frame.f_trace = self.trace_dispatch
            frame = frame.f_back
        monitor.needs_changed(self)
        if signal.getsignal(signal.SIGINT) == self.sigint_handler:
            self.interruption.knock()         # it may wait in C code
        return True

    def raise_here(self, frame: FrameType) -> None:
        """In the handler of a signal: raise what another thread has asked for."""
        state = self.stop_states.own()
        error, state.error_to_raise = state.error_to_raise, None
        if error is None or monitor.is_at_work or is_debuggers_code(frame):
            state.error_to_raise = error      # it is raised at the next event
        elif threading.get_ident() not in monitor.raiser.ended_thread_ids:
            if isinstance(error, BdbQuit):
                monitor.raiser.ended_thread_ids.add(threading.get_ident())
                if ARE_PARALLEL:
                    monitor.suspension.watch_own_code()       # nobody else could, and the program may catch it
            state.run_freely()                # no stop at what is raised
            monitor.needs_changed(self)
            raise error
