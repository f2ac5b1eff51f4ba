"""What the filter has to know of breakpoints: which lines of which code objects.

A debugger's breakpoints are names and line numbers; the filter and the interpreter
take a set of lines for each code object.  Between the two stand the module's per-file
records, which know all code objects of a file that ran so far; code that runs later is
caught by the hook for new records, before its first event is decided.
"""

from __future__ import annotations

import bdb
import functools
import os
import weakref

import optmonitoring
from brixbase import dlog

from brixdebug import log
from brixdebug.raising import is_of_signal_handler
from brixdebug.statements import offset_in

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any

    from optmonitoring import CPerCodeObject

    from brixdebug.protocol import TracedDebugger
    from brixdebug.raising import Raiser
    from brixdebug.turn import Turn
    from brixdebug.switches import Switches


def is_pseudo_file(filename: str) -> bool:
    """True for a name such as <string> and for the empty one."""
    return optmonitoring.GetPathnameKind(filename) != optmonitoring.kRegularPathname


class BreakLines:
    """Keeps the records in line with the breakpoints of the debugger that traces."""

    def __init__(self, switches: Switches, raiser: Raiser, turn: Turn,
                 is_own_thread: Callable[[], bool]) -> None:
        """`is_own_thread` tells whether the calling thread is one of the debugger's own."""
        self._switches = switches
        self._turn = turn
        self._is_own_thread = is_own_thread
        self._raiser = raiser
        self.debugger: TracedDebugger | None = None   # whose breakpoints new code is searched for
        # ids of the code objects whose lines are switched on, if they have any to stop at
        self._taken_in: set[int] = set()
        self._absolute_names: dict[str, str] = {}     # relative file name -> absolute
        # name of no file -> {id: weak reference to code}
        self._pseudo_codes: dict[str, dict[int, weakref.ref[CodeType]]] = {}
        # canonical pathname, or the name of no file -> names of it that are passed over
        self._passed: dict[str, set[str]] = {}
        switches.find_with(self._look_at)

    def absolute_name(self, filename: str) -> str | None:
        """`filename` made absolute as it was when its code was first seen; None for no file."""
        if is_pseudo_file(filename):
            return None
        if os.path.isabs(filename):
            return filename
        return self._absolute_names.get(filename) or os.path.abspath(filename)

    def share(self, debugger: TracedDebugger, filename: str) -> bool:
        """Bring the records of one file in line with its breakpoints.

        True when places have to be armed again: a code object has got lines that it had
        not, or code of the file has been passed over.
        """
        self._switches.forget_dead_code()
        lines = dict.fromkeys(debugger.breaks.get(filename, ()), filename)
        if is_pseudo_file(filename):
            records = self._records_of_pseudo_file(filename)
            name: Any = filename
        else:
            name = optmonitoring.get_canonical_pathname(filename)
            per_file = optmonitoring.CPerFile.GetPerFile(name)
            per_file.fBpSetByLineno.clear()
            per_file.fBpSetByLineno.update(lines)
            records = list(per_file.fKnownPerCodeObjects)
        if lines:
            self._switches.look_again(self._passed.pop(name, ()))
        grown = bool(lines)
        for record in records:
            grown |= self._enable_lines(debugger, record)
        log.breakpoints(lambda: self._lines_without_code(filename, lines, records))
        return grown

    def _lines_without_code(self, filename: str, lines: dict[int, Any],
                            records: list[CPerCodeObject]) -> str:
        found = set().union(*(self._switches.lines_of(record) or () for record in records))
        return "".join("no code that ran so far is on line %d of %s\n" % (line, filename)
                       for line in lines if line not in found)

    def _records_of_pseudo_file(self, filename: str) -> list[CPerCodeObject]:
        codes = [reference() for reference in list(self._pseudo_codes.get(filename, {}).values())]
        records = [optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
                   for code in codes if code is not None]
        return [record for record in records if record is not None]

    def forget(self) -> None:
        """The files' records say nothing of breakpoints any longer."""
        self._taken_in, self._passed = set(), {}      # new ones, as in `Switches.release`
        for per_file in optmonitoring.CPerFile.GetAllPerFiles():
            per_file.fBpSetByLineno.clear()

    @staticmethod
    def find_running_code(frame: FrameType | None) -> None:
        """Make records of all code that a stack of frames runs: it may not start again for a long time."""
        while frame is not None:
            if optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, False) is None:
                optmonitoring.CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame)
            frame = frame.f_back

    def on_new_code(self, record: CPerCodeObject) -> None:
        """The hook for new records: no line of the code is decided before this ends."""
        interruption = _to_the_end("a new code object", self._take_in, record)
        if interruption is not None:
            self._raiser.raise_in_program(interruption)

    def _take_in(self, record: CPerCodeObject) -> None:
        self._remember_name(record)
        debugger = self.debugger
        if debugger is not None and debugger.awaits_code:
            self._show(debugger, record)
        if debugger is not None and debugger.breaks:
            with self._switches.lock:
                self._enable_lines(debugger, record)
        code = record.fCodeObjectWeakRef()
        if code is not None:
            self._taken_in.add(id(code))

    def _show(self, debugger: TracedDebugger, record: CPerCodeObject) -> None:
        """Let the debugger set breakpoints in code that is new to it.

        Not where a record is made with the lock of what is switched on, which goes after the
        turn: that code runs already.
        """
        code = record.fCodeObjectWeakRef()
        if code is None or record.fIsInternal or self._switches.lock._is_owned() and not self._turn.lock._is_owned():
            return
        interruption = None
        if not self._turn.lock.acquire(blocking=False):
            if self._is_own_thread():
                return                # it serves the stop that has the turn
            interruption = self._turn.take()
        try:
            if self.debugger is debugger:
                debugger.code_is_new(code)
        finally:
            self._turn.lock.release()
        if interruption is not None:
            self._raiser.raise_in_program(interruption)

    def await_code(self, code: CodeType) -> None:
        """Wait until the breakpoints of `code` are switched on: no line of it may run before.

        Another thread may have made its record, and the hook for new records may still run there.
        """
        if id(code) in self._taken_in:
            return
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        if record is not None:
            self.on_new_code(record)

    def _look_at(self, code: CodeType, frame: FrameType) -> BaseException | None:
        """Code begins to run in a file that is not passed over.  From here on it is, if nobody waits in it."""
        return _to_the_end("the search for code", self._look_at_file, code, frame)

    def _look_at_file(self, code: CodeType, frame: FrameType) -> None:
        debugger = self.debugger
        if debugger is not None and not debugger.awaits_code and self._is_passed_by_name(code.co_filename):
            return
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        if record is None:
            record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, frame)
        filename = code.co_filename
        if debugger is None or record is None or type(filename) is not str \
                or not (os.path.isabs(filename) or is_pseudo_file(filename)):
            return                    # a relative name may be that of another file next time
        if not self._is_waited_for(debugger, record, code):
            with self._switches.lock:
                if not self._is_waited_for(debugger, record, code):
                    name: Any = record.fCanonicalPathname or filename
                    self._passed.setdefault(name, set()).add(filename)
                    self._switches.pass_over(filename)

    def _is_passed_by_name(self, filename: Any) -> bool:
        """Pass over a file if its absolute name is enough to see that there are no breakpoints in it.

        No record of the code is made: it would be found by the code's hash, which covers all code of a module.
        """
        if type(filename) is not str or not os.path.isabs(filename) or is_pseudo_file(filename):
            return False
        name: Any = optmonitoring.get_canonical_pathname(filename)
        per_file = optmonitoring.CPerFile.GetPerFile(name)
        if per_file.fBpSetByLineno:
            return False
        with self._switches.lock:
            if per_file.fBpSetByLineno:       # set meanwhile
                return False
            self._passed.setdefault(name, set()).add(filename)
            self._switches.pass_over(filename)
        return True

    def _is_waited_for(self, debugger: TracedDebugger, record: CPerCodeObject, code: CodeType) -> bool:
        """There are breakpoints in the file."""
        return not record.fIsInternal and bool(self._names(debugger, record, code))

    def _remember_name(self, record: CPerCodeObject) -> None:
        code = record.fCodeObjectWeakRef()
        if code is None:
            return
        filename = code.co_filename
        if record.fCanonicalPathname is None:
            codes = self._pseudo_codes.setdefault(filename, {})
            key = id(code)
            # Not a function of ours: that would be Python code at any moment, and traced.
            codes[key] = weakref.ref(code, functools.partial(codes.pop, key))
        elif not os.path.isabs(filename) and not is_pseudo_file(filename):
            self._absolute_names[filename] = record.fPathnameToReport

    def narrow(self, debugger: TracedDebugger, code: CodeType) -> None:
        """A breakpoint by function name may have found its line: report no others."""
        record = optmonitoring.CPerCodeObject.GetPerCodeObject(code, False)
        if record is not None:
            with self._switches.lock:
                self._enable_lines(debugger, record)

    def _enable_lines(self, debugger: TracedDebugger, record: CPerCodeObject) -> bool:
        """Tell the filter the lines of one code object; True when there are new ones."""
        code = record.fCodeObjectWeakRef()
        if code is None:
            return False
        lines = self._lines(debugger, record, code)
        if lines and record.fIsInternal:
            log.breakpoints(lambda: "%s is the debugger's own code: no breakpoint holds there\n"
                % _code_text(code))
            lines = None
        offsets = self._offsets(debugger, record, code, lines or set())
        before, offsets_before = self._switches.lines_of(record), self._switches.offsets_of(record)
        if lines == before and offsets == offsets_before:
            return False
        log.breakpoints(lambda: "lines to stop at in %s: %s\n" % (
            _code_text(code), ", ".join(map(str, sorted(lines or ()))) or "none"))
        self._switches.want(record, lines=lines or set(), offsets=offsets)
        return lines is not None and not lines <= (before or set()) or not offsets <= offsets_before

    def _offsets(self, debugger: TracedDebugger, record: CPerCodeObject, code: CodeType,
                 lines: set[int]) -> set[int]:
        """The instructions at which statements with a breakpoint of their own begin."""
        names = self._names(debugger, record, code) if lines else {}
        spans = [getattr(each, "span", None) for line in lines if line in names
                 for each in bdb.Breakpoint.bplist.get((names[line], line), ())]
        found = {offset_in(code, span) for span in spans if span is not None}
        return {offset for offset in found if offset is not None}

    @staticmethod
    def _names(debugger: TracedDebugger, record: CPerCodeObject, code: CodeType) -> dict[int, str]:
        """The lines with breakpoints in the file of the code, each with the name it was set by."""
        if record.fCanonicalPathname is None:
            return dict.fromkeys(debugger.breaks.get(code.co_filename, ()), code.co_filename)
        names: dict[int, str] = optmonitoring.CPerFile.GetPerFile(record.fCanonicalPathname).fBpSetByLineno
        return names

    def _lines(self, debugger: TracedDebugger, record: CPerCodeObject, code: CodeType) -> set[int] | None:
        """The set of lines to report, None when there is none."""
        names = self._names(debugger, record, code)
        if not names:
            return None
        code_lines = {line for _, _, line in code.co_lines() if line is not None}
        lines = code_lines.intersection(names)
        first_line = code.co_firstlineno
        if first_line in names:
            lines |= _function_lines(names[first_line], first_line, code, code_lines)
        return lines or None


def _to_the_end(what: str, do: Callable[..., None], *args: object) -> BaseException | None:
    """Call it until no handler of a signal interrupts it, and return what such a handler raised.

    A breakpoint is not to be missed for that.  An error of our own is logged.
    """
    interruption = None
    while True:
        try:
            do(*args)
            return interruption
        except BaseException as error:
            if not is_of_signal_handler(error):
                dlog.LogException(what)
                return interruption
            interruption = error


def _code_text(code: CodeType) -> str:
    return "%s() of %s:%d" % (code.co_qualname, code.co_filename, code.co_firstlineno)


def _function_lines(filename: str, first_line: int, code: CodeType,
                    code_lines: set[int]) -> set[int]:
    """The lines at which a breakpoint by function name may stop.

    It is the first line that is executed, which is not known before it is.
    """
    lines = set()
    for breakpoint in bdb.Breakpoint.bplist.get((filename, first_line), ()):
        if breakpoint.funcname == code.co_name:
            if breakpoint.func_first_executable_line:
                lines.add(breakpoint.func_first_executable_line)
            else:
                lines |= code_lines
    return lines
