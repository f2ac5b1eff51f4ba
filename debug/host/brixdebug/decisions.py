"""Whether a breakpoint that was reached stops its thread.

The rules are those of `bdb.effective`, and beside them hit conditions and texts to be logged.
A breakpoint that does not stop is decided here at once, in the thread that reached it: no
turn is waited for, and only the variables of its condition are read.
"""

from __future__ import annotations

import _thread
import bdb
import sys


from brixdebug import conditions, log
from brixdebug.locks import ARE_PARALLEL
from brixdebug.raising import is_of_signal_handler
from brixdebug.statements import offset_in

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any

    from brixdebug.statements import Span

    # a breakpoint, and whether it is to be deleted when it is a temporary one
    Decision = tuple[bdb.Breakpoint, bool]
    OnLog = Callable[[FrameType, bdb.Breakpoint, str], object]

_MANY_CODES = 1000


class Breakpoint(bdb.Breakpoint):
    """A breakpoint that may count its hits, log a text in place of stopping, or be of one statement of its line."""

    hit_condition: conditions.HitCondition | None = None
    log_text: conditions.LogText | None = None
    span: Span | None = None      # of its statement; None: of the whole line
    true_hits = 0                 # how often it was reached with its condition true

    # Of the next one that is made: nobody is to reach it before it is whole.
    fields_of_next: dict[str, Any] = {}

    def __init__(self, *args: Any) -> None:
        self.__dict__.update(self.fields_of_next)
        super().__init__(*args)

    def bpformat(self) -> str:
        text = super().bpformat()
        if self.hit_condition is not None:
            text += "\n\tstop only at hits %s" % self.hit_condition
        if self.log_text is not None:
            text += "\n\tlog %s" % self.log_text.text
        return text


class Point:
    """A breakpoint at one line of one code object."""

    __slots__ = ("breakpoint", "condition", "evaluate", "is_simple", "own")

    breakpoint: Any               # `bdb.Breakpoint` declares none of its fields
    condition: str | None         # that `evaluate` is for
    evaluate: conditions.Evaluator

    def __init__(self, breakpoint: bdb.Breakpoint) -> None:
        self.breakpoint = breakpoint
        self.own = breakpoint if isinstance(breakpoint, Breakpoint) else None     # what bdb has not
        self.condition = None
        self.is_simple = False                # alone on its line, where an addition needs no lock

    def compile(self, frame: FrameType, lock: _thread.LockType) -> None:
        """`lock` is for the moment in which the new condition takes the place of the old: several threads may do this."""
        condition = self.breakpoint.cond
        evaluate = conditions.evaluator(condition, frame.f_code, frame.f_globals)
        with lock:
            self.evaluate = evaluate
            self.condition = condition


# What `decide_fast` has found out: that a breakpoint does not stop, that its condition has raised,
# or that the hit is one that counts.
UNDECIDED, PASSED, RAISED, COUNTED = range(4)


class Decisions:
    """Decides, and remembers the breakpoints of each line that was reached."""

    def __init__(self) -> None:
        # id of a code object -> line, or ~offset of an instruction -> its breakpoints.  Who forgets puts a new table in the
        # place of this: an entry made meanwhile from the old breakpoints goes with the old table.
        self.places: dict[int, dict[int, tuple[Point, ...]]]
        self.begin_anew()

    def begin_anew(self) -> None:
        """Also after a fork, in the child: another thread may have held the lock, or the table's own."""
        self.forget()
        # Around the counts of hits, and conditions that change; nothing of the program is called inside.
        self._counting = _thread.allocate_lock()

    def forget(self) -> None:
        """Breakpoints have changed."""
        self.places = {}

    def forget_code(self, code: CodeType) -> None:
        """A code object is new: what is known was another's of the same id."""
        self.places.pop(id(code), None)

    def points(self, filename: str, line: int, frame: FrameType,
               is_early: bool = False, offset: int | None = None) -> tuple[Point, ...]:
        """The breakpoints of `filename` and `line` that are meant at the line of `frame`.

        With `offset`, those of the statement that begins at this instruction.
        `is_early`: they are remembered, to be decided before the debugger is asked.
        """
        places = self.places
        points = []
        is_final = is_early
        for each in list(bdb.Breakpoint.bplist.get((filename, line), ())):
            span = getattr(each, "span", None)
            if offset != (None if span is None else offset_in(frame.f_code, span)):
                continue
            if each.funcname is not None and each.func_first_executable_line is None \
                    and not each.enabled:
                is_final = False      # its line is the first that is executed while it is enabled
            elif bdb.checkfuncname(each, frame):
                points.append(Point(each))
        result = tuple(points)
        for point in points:
            point.is_simple = len(points) == 1 and not ARE_PARALLEL
        if is_final:
            if len(places) >= _MANY_CODES:        # code that is made over and over
                places.clear()
            places.setdefault(id(frame.f_code), {})[
                frame.f_lineno if offset is None else ~offset] = result
        return result

    def decide_fast(self, points: tuple[Point, ...], frame: FrameType) -> int:
        """Whether the only breakpoint of a line lets the thread pass.

        Everything else is left to `decide`, which goes on with what has been found out here.
        """
        point = points[0]
        each = point.breakpoint
        condition = each.cond
        if condition is not point.condition or not (point.is_simple and each.enabled) or log.current_mask:
            return UNDECIDED
        # One addition in place: the interpreter does not change threads inside it.
        each.hits += 1
        if condition is not None:
            try:
                if not point.evaluate(frame):
                    return PASSED
            except BaseException as error:
                if is_of_signal_handler(error):
                    raise
                return RAISED
        return COUNTED if self._count(point) else PASSED

    def decide(self, points: tuple[Point, ...], frame: FrameType, on_log: OnLog,
               verdict: int = UNDECIDED) -> Decision | None:
        """The breakpoint to stop at; None when there is none.

        `verdict`: that of `decide_fast`, of the first one.
        """
        for point in points:
            each = point.breakpoint
            if verdict == UNDECIDED:
                verdict = self._decide_one(point, frame)
            if verdict == RAISED:
                return each, False
            if verdict == COUNTED:
                if point.own is None or point.own.log_text is None:
                    return each, True
                on_log(frame, each, point.own.log_text.render(frame))
            verdict = UNDECIDED
        return None

    def _decide_one(self, point: Point, frame: FrameType) -> int:
        each = point.breakpoint
        if not each.enabled:
            _log_decision(each, frame, "it is disabled")
            return PASSED
        with self._counting:
            each.hits += 1
        if each.cond:
            try:
                if each.cond is not point.condition:
                    point.compile(frame, self._counting)
                is_true = bool(point.evaluate(frame))
            except BaseException as error:
                if is_of_signal_handler(error):
                    raise
                _log_decision(each, frame, "stop; its condition raised")
                return RAISED
            if not is_true:
                _log_decision(each, frame, "its condition is false")
                return PASSED
        if not self._count(point):
            _log_decision(each, frame, "ignored, %d to go" % each.ignore if each.ignore or point.own is None
                          or point.own.hit_condition is None else "hit %d is none of %s" % (
                              point.own.true_hits, point.own.hit_condition))
            return PASSED
        is_log = point.own is not None and point.own.log_text is not None
        _log_decision(each, frame, "its text is logged" if is_log else "stop")
        return COUNTED

    def _count(self, point: Point) -> bool:
        """Count a hit with a true condition; whether it is one that counts."""
        own = point.own
        each = point.breakpoint
        with self._counting:
            if own is not None:
                own.true_hits += 1
                if own.hit_condition is not None and not own.hit_condition.matches(own.true_hits):
                    return False
            if each.ignore <= 0:
                return True
            each.ignore -= 1
            return False


def is_deciding() -> bool:
    """The calling thread evaluates a condition or a text to be logged."""
    frame: FrameType | None = sys._getframe()
    while frame is not None:
        if frame.f_code in _DECIDING_CODES:
            return True
        frame = frame.f_back
    return False


_DECIDING_CODES = {Decisions.decide_fast.__code__, Decisions.decide.__code__}


def still_stops(breakpoint: Any) -> bool:
    """It has not been cleared, disabled or made to log since it was reached."""
    return bool(breakpoint.enabled) \
        and bdb.Breakpoint.bpbynumber[breakpoint.number] is breakpoint \
        and getattr(breakpoint, "log_text", None) is None


def count_anew() -> None:
    """The program begins again."""
    for each in bdb.Breakpoint.bpbynumber:
        if isinstance(each, Breakpoint):
            each.true_hits = 0


def _log_decision(breakpoint: Any, frame: FrameType, text: str) -> None:
    if not log.current_mask:
        return
    log.breakpoints(lambda: "breakpoint %d at %s:%d reached in %s(): %s\n" % (
        breakpoint.number, frame.f_code.co_filename, frame.f_lineno, frame.f_code.co_name, text))
