"""The prompt at a terminal: whose Ctrl-C it is, and where a line is read when the usual place is busy."""

from __future__ import annotations

import _thread
import _signal  # type: ignore[import-not-found]
import contextlib
import io
import os
import pdb
import signal
import sys
import threading

import optmonitoring

from brixdebug import colors, processes
from brixdebug.interrupts import look
from brixdebug.monitor import monitor
from brixdebug.session_ends import Ends
from brixdebug.sharing import sharing
from brixdebug.suspension import is_threading_code

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterator, Sequence
    from types import FrameType
    from typing import Any

    from brixdebug.exceptions import ExceptionRule
    from brixdebug.watching import Change

# What says in a prompt whose it is.
_NAMED_PROMPTS = {"(Pdb) ": "(Pdb %d) ", "ipdb> ": "ipdb %d> "}

_threading: Any = threading                    # its main thread without a call

command_loops = {pdb.Pdb.cmdloop.__code__}        # where a command is read or run
_INTERACTION = pdb.Pdb.interaction.__code__
_STANDARD_CLASS = pdb.Pdb                         # the name may be ours later

# Up to 3.13's first releases pdb has a table of the variables, which keeps them alive.
_KEEPS_LOCALS = "curframe_locals" in pdb.Pdb.setup.__code__.co_names

_MANY_LINES = 32
_NO_FILES = ("<frozen runpy>", "<string>")

_SIGINT = int(signal.SIGINT)

# What `input` raises in the middle of an `input` of the program's.
_BUSY_INPUT = "can't re-enter readline"


class PlainInput:
    """Reads lines from a descriptor, with nothing between that the program may be in the middle of."""

    encoding = "utf-8"

    def __init__(self, descriptor: int) -> None:
        self._descriptor = descriptor

    def fileno(self) -> int:
        return self._descriptor

    def readline(self) -> str:
        """The next line; the empty text at the end.  What follows it is left for the program."""
        line = b""
        while not line.endswith(b"\n"):
            byte = os.read(self._descriptor, 1)
            if not byte:
                break
            line += byte
        return line.decode("utf-8", "replace")


def _have_lines_edited(descriptor: int = 0) -> None:
    if not os.isatty(descriptor):
        return
    import termios
    modes = termios.tcgetattr(descriptor)
    modes[0] |= termios.ICRNL
    modes[1] |= termios.OPOST | termios.ONLCR
    modes[3] |= termios.ICANON | termios.ECHO | termios.ECHOE | termios.ECHOK | termios.ISIG | termios.IEXTEN
    termios.tcsetattr(descriptor, termios.TCSADRAIN, modes)


# What was killed at its prompt has left the terminal as `readline` had made it.
sharing.on_left_behind = _have_lines_edited


@contextlib.contextmanager
def _edited_by_terminal(descriptor: int) -> Iterator[None]:
    """The terminal collects and shows whole lines, whatever `readline` has made of it for the program."""
    if not os.isatty(descriptor):
        yield
        return
    import termios
    before = termios.tcgetattr(descriptor)
    _have_lines_edited(descriptor)
    try:
        yield
    finally:
        termios.tcsetattr(descriptor, termios.TCSADRAIN, before)


def _is_busy(stream: Any) -> bool:
    """True in the middle of a write to `stream`: another would fail, and lose text of the program."""
    buffer = getattr(stream, "buffer", None)
    if not isinstance(buffer, (io.BufferedWriter, io.BufferedRandom)):
        return False
    try:
        buffer.flush()
    except RuntimeError:
        return True
    except Exception:                         # a full disk is not what was asked
        pass
    return False


def _is_being_read(stream: Any) -> bool:
    """True in the middle of a read from `stream`."""
    buffer = getattr(stream, "buffer", None)
    if not isinstance(buffer, io.BufferedReader):
        return False
    try:
        buffer.readinto(bytearray())
    except RuntimeError:
        return True
    except Exception:
        pass
    return False


_prompting: list[Terminal] = []               # the debuggers that are at a prompt, the innermost last
_programs_handler: Any = None                 # of SIGINT, what it was before it was ours
_own_handler: Any = None                      # what it was made then


class Terminal(Ends):
    """The part of `Debugger` that deals with the terminal."""

    _is_leaving = False                       # the command that ends the prompt has been given
    _looked_at: tuple[Any, bool] = None, False    # a stream, and whether somebody types there
    _colored: tuple[Any, bool] = None, False      # a stream, and whether it shows colours
    _named_prompt: str | None = None          # what we have put in the place of the plain one
    _plain_prompt = ""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self._parsed: dict[str, Any] = {}     # line -> what `parseline` makes of it
        # pdb asks for the times of all files on the stack, and of these in vain at each stop.
        getattr(self, "_file_mtime_table", {}).update(dict.fromkeys(_NO_FILES))

    # -- a terminal for several processes -------------------------------------------------

    @property
    def follows_fork(self) -> bool:
        """Whether children of the program are debugged too; one for the process."""
        return processes.are_children_followed

    @follows_fork.setter
    def follows_fork(self, is_on: bool) -> None:
        processes.follow_children(is_on)
        if is_on:
            sharing.join()

    def begin_turn(self, frame: FrameType | None, traceback: Any = None) -> None:
        """Wait for the terminal: the program stopped in `frame`, or was ended where `traceback` says."""
        if not sharing.look_for_others():
            sharing.begin_prompt("")
            return
        if _is_main_thread():
            self._take_interrupts()
        sharing.begin_prompt(self._place_of(frame, traceback))
        try:
            self._name_prompt()
        except BaseException:                 # of a signal handler
            sharing.end_prompt(False)
            raise

    def end_turn(self, frame: FrameType | None) -> None:
        """What `begin_turn` was for is done."""
        is_step = sharing.is_on and frame is not None and not self.quitting \
            and not all(state.is_free for state in self.stop_states.all())
        sharing.end_prompt(is_step)

    @staticmethod
    def raise_interruption() -> None:
        """Raise what the handler of a signal has raised while this process waited for the terminal."""
        interruption = sharing.pop_interruption()
        if interruption is not None:
            raise interruption

    def _place_of(self, frame: FrameType | None, traceback: Any) -> str:
        traceback = getattr(traceback, "__traceback__", traceback)
        if frame is None and traceback is not None:
            frame, line = self.get_stack(None, traceback)[0][-1]
        elif frame is not None:
            line = frame.f_lineno
        else:
            return ""
        return "%s(%s)%s()" % (self.canonic(frame.f_code.co_filename), line, frame.f_code.co_name)

    def _name_prompt(self) -> None:
        """The prompt of a child says whose it is, and so does each where nobody is the parent."""
        plain = self._plain_prompt if self.prompt == self._named_prompt else self.prompt
        if plain not in _NAMED_PROMPTS:
            return                            # of a debugger inside of this one, or the program's own
        is_named = processes.is_followed() or sharing.has_others and not processes.is_of_session()
        self._plain_prompt = plain
        self.prompt = self._named_prompt = _NAMED_PROMPTS[plain] % os.getpid() if is_named else plain

    # What pdb prints of a stop before it asks for `interaction`, and what breakpoints have been told to do.

    def user_line(self, frame: FrameType) -> None:
        if sharing.is_on:
            self._report_stop(super().user_line, frame)
        else:                                 # at each step
            super().user_line(frame)

    def user_call(self, frame: FrameType, argument_list: Any) -> None:
        if not sharing.is_on or self.stop_here(frame):
            self._report_stop(super().user_call, frame, argument_list)

    def user_return(self, frame: FrameType, return_value: Any) -> None:
        self._report_stop(super().user_return, frame, return_value)

    def user_exception(self, frame: FrameType, exc_info: Any) -> None:
        self._report_stop(super().user_exception, frame, exc_info)

    def user_uncaught(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        self._report_stop(super().user_uncaught, frame, exception, rule)

    def user_watch(self, frame: FrameType, changes: list[Change]) -> None:
        self._report_stop(super().user_watch, frame, changes)

    def _report_stop(self, report: Callable[..., object], frame: FrameType, *what: object) -> None:
        if not sharing.is_on:                 # `interaction` looks for others
            report(frame, *what)
            return
        self.begin_turn(frame)
        try:
            report(frame, *what)
        finally:
            self.end_turn(frame)
        self.raise_interruption()

    # -- Ctrl-C --------------------------------------------------------------------------

    def begin_prompt(self) -> None:
        """The calling thread is at the prompt from now on."""
        self._is_leaving = False
        self.post_mortem_of: Any = None
        if _is_main_thread():
            self._take_interrupts()
        _prompting.append(self)

    def show_interruption(self) -> None:
        """The main thread stops because of Ctrl-C."""
        if threading.get_ident() == threading.main_thread().ident and self.interruption.end():
            self.message("\nProgram interrupted. (Use 'cont' to resume).")

    def end_prompt(self, is_post_mortem: bool) -> None:
        _prompting.pop()
        self.post_mortem_of = None            # it keeps all variables of the stack alive
        if _KEEPS_LOCALS:
            self.curframe_locals = {}
        if not _is_main_thread():
            self._use_up_interrupt()
            return
        if is_post_mortem:
            self.give_back_interrupts()
            return
        previous = pdb.Pdb._previous_sigint_handler       # type: ignore[attr-defined]
        if previous is not None and _is_ours(previous):
            # `continue` has found it; who asks pdb, and pdb itself, is to find the program's.
            pdb.Pdb._previous_sigint_handler = _programs_handler      # type: ignore[attr-defined]

    def _use_up_interrupt(self) -> None:
        """The prompt of a worker thread ends: a Ctrl-C that was for it is not to stop the main thread later.

        That thread calls the handler, and may not have come to it: it had just begun to wait in C code, or waits for
        the interpreter lock.  A knock makes it look, and what it finds counts as the knock.  It is done only where it
        waits for a lock, as in `join`, or at its gate: other calls of the program may end of a signal.  If it has begun
        to look, it finds that the prompt has ended.
        """
        frame = sys._current_frames().get(threading.main_thread().ident or 0)
        if frame is None:
            return
        if frame.f_code is Terminal.sigint_handler.__code__ and not look.has_begun:
            look.used_up = look.number + 1
        elif look.has_begun or (is_threading_code(frame) or optmonitoring.IsInternalFrame(frame)) \
                and self.waits_for_user() and _is_ours(signal.getsignal(signal.SIGINT)):
            self._traced().interruption.knock(ends_prompt=True)

    def _traced(self) -> Terminal:
        """The debugger that gets the events; in a program with another one that is derived from `bdb`, this one."""
        return monitor.debugger if isinstance(monitor.debugger, Terminal) else self

    if _KEEPS_LOCALS:
        def forget(self) -> None:
            """Also after the commands of a breakpoint, without a prompt."""
            super().forget()
            self.curframe_locals: Any = {}

    def sigint_handler(self, signum: Any, frame: Any) -> None:
        """The handler of SIGINT, in the main thread; prints nothing, for the thread may be in a `print`."""
        look.number += 1
        own, outer, look.has_begun = look.number, look.has_begun, True
        try:
            self._look(own, signum, frame)
        finally:
            look.has_begun = outer

    def _look(self, number: int, signum: Any, frame: Any) -> None:
        traced = self._traced()
        is_knock = traced.interruption.take_knock()
        if not is_knock and sharing.is_anothers:
            return            # typed at the prompt of another process
        traced.raise_here(frame)
        if monitor.suspension.holder not in (None, threading.get_ident()):
            if not is_knock:
                monitor.suspension.evaluation.interrupt()
            return            # the prompt is another thread's, and this one is not to die of it
        if look.used_up >= number:
            return            # that prompt has ended since
        if self.quitting or monitor.suspension.is_ending_all:
            if callable(_programs_handler) and not is_knock:
                _programs_handler(signum, frame)
            return
        prompting = _prompting[-1] if _prompting else None
        if prompting is None and _is_at_standard_prompt(frame):
            if callable(_programs_handler) and not is_knock:
                _programs_handler(signum, frame)
        elif prompting is None or prompting._is_leaving or monitor.debugger not in (None, prompting):
            traced.interrupt(frame, is_knock)
        elif _is_in_command_loop(frame) and not is_knock:
            raise KeyboardInterrupt

    def _take_interrupts(self) -> None:
        global _programs_handler, _own_handler
        if self.nosigint:
            return
        handler = _signal.getsignal(_SIGINT)          # that of `signal` makes an enumeration's member of it
        if handler is not _own_handler and not _is_ours(handler):
            _programs_handler, _own_handler = handler, self.sigint_handler
            signal.signal(signal.SIGINT, _own_handler)
        # Nothing for pdb to put back.  Written only where it has to be: a write to an attribute of a
        # class makes the interpreter look up all methods of the class, and of those derived from it, anew.
        if pdb.Pdb._previous_sigint_handler is not None:      # type: ignore[attr-defined]
            pdb.Pdb._previous_sigint_handler = None           # type: ignore[attr-defined]

    def give_back_interrupts(self) -> None:
        """Ctrl-C is for the program again; it may have a handler of its own by now."""
        if _is_ours(signal.getsignal(signal.SIGINT)) and _programs_handler is not None:
            signal.signal(signal.SIGINT, _programs_handler)

    def after_fork_in_child(self) -> None:
        super().after_fork_in_child()
        if self.is_left_alone:
            self.give_back_interrupts()
            return
        sharing.follow_parent()
        processes.follow()

    def stop_trace(self) -> None:
        super().stop_trace()
        if monitor.debugger is None and threading.get_ident() == threading.main_thread().ident:
            self.give_back_interrupts()

    def can_stop_inside(self) -> bool:
        return not _is_busy(self.stdout)

    def waits_for_user(self) -> bool:
        """False for commands from a file or a pipe: they follow each other at once."""
        stream: Any = sys.stdin if self.use_rawinput else self.stdin
        if stream is not self._looked_at[0]:
            try:
                self._looked_at = stream, bool(stream.isatty())
            except (AttributeError, OSError, ValueError):
                return False
        return self._looked_at[1]

    # -- what later versions have at their prompt --------------------------------------------

    if sys.version_info < (3, 14):
        def _print_lines(self, lines: Sequence[str], start: int, breaks: Sequence[int] = (),
                         frame: FrameType | None = None) -> None:
            if self._has_colors():
                lines = [colors.highlight(line.rstrip("\r\n")) for line in lines]
            super()._print_lines(lines, start, breaks, frame)

        def format_stack_entry(self, frame_lineno: tuple[FrameType, int], lprefix: str = ": ") -> str:
            text = super().format_stack_entry(frame_lineno, lprefix)
            if self.stdout is self._colored[0] and not self._colored[1] or not self._has_colors():
                return text
            place, prefix, line = text.rpartition(pdb.line_prefix)
            return place + prefix + colors.highlight(line) if prefix and lprefix == prefix else text

        def _has_colors(self) -> bool:
            if self.stdout is not self._colored[0]:
                self._colored = self.stdout, colors.are_wanted(self.stdout)
            return self._colored[1]

    if sys.version_info < (3, 13):
        def completenames(self, text: str, *place: Any) -> list[str]:
            names = super().completenames(text, *place) + [each for each in self.aliases if each.startswith(text)]
            return names or self.completedefault(text, *place)

    # -- reading ---------------------------------------------------------------------------

    def parseline(self, line: str) -> Any:
        """Once for what is typed over and over."""
        parsed = self._parsed.get(line)
        if parsed is None:
            if len(self._parsed) >= _MANY_LINES:
                self._parsed.clear()
            parsed = self._parsed[line] = super().parseline(line)
        return parsed

    def _cmdloop(self) -> None:
        completekey = self.completekey
        if not self.waits_for_user():
            self.completekey = None           # type: ignore[assignment]
        try:
            if not _is_being_read(self.stdin):
                try:
                    with self._own_output():
                        return super()._cmdloop()
                except RuntimeError as error:
                    if str(error) != _BUSY_INPUT:
                        raise
            with self._plain_input():
                super()._cmdloop()
        finally:
            self.completekey = completekey

    @contextlib.contextmanager
    def _own_output(self) -> Iterator[None]:
        """The prompt is shown where all else of the debugger is, not by what the program has made `sys.stdout`.

        That may log what it is given, or need a lock that a held thread has.
        """
        if not self._is_output_replaced():
            yield
            return
        before: Any = self.stdin, self.use_rawinput
        self.stdin, self.use_rawinput = sys.stdin, False
        try:
            yield
        finally:
            self.stdin, self.use_rawinput = before

    def _is_output_replaced(self) -> bool:
        """Whether `input` would hand its prompt to something of the program's."""
        if sys.stdout is self.stdout or not self.use_rawinput or type(self).cmdloop is not _STANDARD_CLASS.cmdloop \
                or sys.stdin is None or sys.stdin.closed:
            return False
        try:
            return sys.stdout.fileno() != 1 or not os.isatty(1)
        except Exception:                     # it is the program's
            return True

    @contextlib.contextmanager
    def _plain_input(self) -> Iterator[None]:
        """The program is in the middle of an `input`: the prompt reads past it."""
        before: Any = self.stdin, self.use_rawinput
        self.stdin, self.use_rawinput = PlainInput(0), False      # type: ignore[assignment]
        try:
            with _edited_by_terminal(0):
                yield
        finally:
            self.stdin, self.use_rawinput = before


def _is_main_thread() -> bool:
    return bool(_thread.get_ident() == _threading._main_thread._ident)


def _is_ours(handler: Any) -> bool:
    return isinstance(getattr(handler, "__self__", None), Terminal)


def _is_at_standard_prompt(frame: FrameType | None) -> bool:
    """True when the program has opened a prompt of `pdb` itself, which reads a command or runs one."""
    while frame is not None:
        if frame.f_code in command_loops and isinstance(frame.f_locals.get("self"), _STANDARD_CLASS):
            return True
        frame = frame.f_back
    return False


def _is_in_command_loop(frame: FrameType | None) -> bool:
    """True when the innermost prompt reads a command or runs one: an exception ends up there."""
    while frame is not None:
        if frame.f_code in command_loops:
            return True
        if frame.f_code is _INTERACTION:
            return False
        frame = frame.f_back
    return False
