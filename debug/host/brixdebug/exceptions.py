"""At which exceptions a thread stops: where they are raised, and where they would end a thread.

An exception is uncaught when it reaches the code that runs a thread and reports it there.  So
nothing has to be guessed when it is raised, and until then nothing is switched on for it but
the one line of `threading` that reports.  What a future, a task or a pool keeps is caught.
"""

from __future__ import annotations

import bdb
import dis
import re
import threading

from brixdebug import conditions
from brixdebug.raising import is_of_signal_handler

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType, TracebackType

RAISED, UNCAUGHT = KINDS = ("raised", "uncaught")

# One that the user's own code lets out, to a library that has called it.
UNHANDLED = "unhandled"

# The name of the exception in a condition.
EXCEPTION_VARIABLE = "$_exception"
_EXCEPTION_NAME = "__exception__"

# How generators and loops end: a stop there has to be asked for by name.
_CONTROL_FLOW = (StopIteration, StopAsyncIteration, GeneratorExit)

# What ends a thread on purpose.
_ENDS = (SystemExit, bdb.BdbQuit)

_DOTTED_NAME = re.compile(r"[^\W\d]\w*(\.[^\W\d]\w*)*$")
_MOST_REMEMBERED = 64


class ExceptionRule:
    """Exceptions of one kind, of a class or of any, with a condition or without one."""

    def __init__(self, kind: str, class_name: str | None = None, condition: str | None = None,
                 resolve: Callable[[str], object] | None = None) -> None:
        """`resolve` gives the object of a name where the user is; ValueError for what cannot be meant."""
        if kind not in KINDS and kind != UNHANDLED:
            raise ValueError("raised or uncaught expected, not %r" % kind)
        self.kind = kind
        self.class_name = class_name
        self.condition = condition
        self.is_known = True          # the class was there when the rule was made
        self._full_name: str | None = None
        if class_name is not None:
            self._find_class(class_name, resolve)
        self._code: CodeType | None = None
        if condition is not None:
            try:
                self._code = conditions.compile_expression(
                    condition.replace(EXCEPTION_VARIABLE, _EXCEPTION_NAME))
            except ValueError as error:
                raise ValueError("invalid condition %s: %s" % (condition, error)) from None

    def __str__(self) -> str:
        text = self.kind
        if self.class_name is not None:
            text += " " + self.class_name
        return text if self.condition is None else "%s if %s" % (text, self.condition)

    def _find_class(self, name: str, resolve: Callable[[str], object] | None) -> None:
        if _DOTTED_NAME.match(name) is None:
            raise ValueError("the name of an exception class expected, not %s" % name)
        try:
            found = resolve(name) if resolve is not None else None
        except Exception:
            found = None
        if found is None:
            self.is_known = False
        elif isinstance(found, type) and issubclass(found, BaseException):
            self._full_name = _full_name(found)       # the program may begin again, and make it anew
        else:
            raise ValueError("%s is not an exception class" % name)

    def _names(self, cls: type) -> bool:
        full_name = _full_name(cls)
        if self._full_name is not None:
            return full_name == self._full_name
        # Packages export classes of their inner modules: by package and last name.
        assert self.class_name is not None
        package, _, _ = self.class_name.partition(".")
        name = self.class_name.rpartition(".")[2]
        if full_name.rpartition(".")[2] != name:
            return False
        return package == name or full_name.partition(".")[0] == package \
            or full_name == self.class_name

    def matches(self, exception: BaseException, frame: FrameType) -> bool:
        """Whether it is one to stop at; the condition is evaluated in `frame`, where it was raised."""
        if not self._matches_class(exception):
            return False
        if self._code is None:
            return True
        try:
            return bool(eval(self._code, frame.f_globals,
                             {**frame.f_locals, _EXCEPTION_NAME: exception}))
        except NameError:
            return False              # meant for other functions
        except BaseException as error:
            if is_of_signal_handler(error):
                raise
            return True               # as with a breakpoint

    def _matches_class(self, exception: BaseException) -> bool:
        bases = type(exception).__mro__
        if self.class_name is None:
            return not isinstance(exception, _CONTROL_FLOW)
        named = [each for each in bases if self._names(each)]
        if isinstance(exception, _CONTROL_FLOW):
            return any(issubclass(each, _CONTROL_FLOW) for each in named)
        return bool(named)


def _full_name(cls: type) -> str:
    # A metaclass may do anything when it is asked.
    return "%s.%s" % (type.__getattribute__(cls, "__module__"),
                      type.__dict__["__qualname__"].__get__(cls))


class ExceptionStops:
    """What one debugger stops at."""

    def __init__(self) -> None:
        self.rules: list[ExceptionRule] = []
        # The rule that is there from the start is no reason to begin a session, or to go on with one.
        self.is_asked_for = False
        # ids of an exception and of its innermost traceback, of those that were stopped at
        self._stopped_at: dict[int, int] = {}
        self._let_out: dict[int, int] = {}    # the same, of those that have left the user's code

    def catches(self, kind: str) -> bool:
        return any(rule.kind == kind for rule in self.rules)

    def add(self, rule: ExceptionRule) -> None:
        """Beside the others; what says the same, or no more than another, goes."""
        is_general = rule.class_name is None and rule.condition is None
        kept = [each for each in self.rules if each.kind != rule.kind or not (
            is_general or each.class_name is None and each.condition is None
            or str(each) == str(rule))]
        self.rules = [*kept, rule]            # at once: other threads look at them
        self.is_asked_for = True

    def clear(self) -> None:
        """Stop at none."""
        self.rules = []
        self.is_asked_for = False

    def rule_for_raised(self, exception: BaseException, frame: FrameType,
                        is_own: Callable[[CodeType], bool]) -> ExceptionRule | None:
        """The rule to stop by, where an exception is raised in `frame` or goes through it.

        It is stopped at once: where it is raised, or, when `is_own` says that this is code
        of no interest, in the first function on the way up that is.
        """
        traceback = exception.__traceback__
        if traceback is None or not is_own(frame.f_code):
            return None
        if not any(rule.kind == RAISED and rule._matches_class(exception) for rule in self.rules):
            return None
        if not self._is_first(exception, traceback, is_own):
            return None
        rule = next((each for each in self.rules
                     if each.kind == RAISED and each.matches(exception, frame)), None)
        if rule is not None:
            _remember(self._stopped_at, exception)
        return rule

    def rule_for_unhandled(self, exception: BaseException, frame: FrameType, caller: FrameType | None,
                           is_own: Callable[[CodeType], bool]) -> ExceptionRule | None:
        """The rule to stop by, where an exception leaves `frame`, for its caller; once for each exception."""
        if caller is None or exception.__traceback__ is None or isinstance(exception, _ENDS) \
                or not is_own(frame.f_code) or is_own(caller.f_code) or _is_in(self._let_out, exception):
            return None
        if caller.f_globals.get("__name__") == "contextlib":
            return None               # on its way through a context manager, to the `with` statement
        rule = next((each for each in self.rules if each.kind == UNHANDLED
                     and each.matches(exception, innermost(exception.__traceback__).tb_frame)), None)
        if rule is not None:
            _remember(self._let_out, exception)
        return rule

    def _is_first(self, exception: BaseException, traceback: TracebackType,
                  is_own: Callable[[CodeType], bool]) -> bool:
        inner: TracebackType | None = traceback.tb_next
        if inner is None:
            return True
        while inner is not None and not is_own(inner.tb_frame.f_code):
            inner = inner.tb_next
        if inner is None:
            return True
        # With a traceback from elsewhere: either it comes from a function that was called, or
        # a statement raises it, which may be a new one that was given an old traceback.
        code = traceback.tb_frame.f_code.co_code
        return dis.opname[code[traceback.tb_lasti]] == "RAISE_VARARGS" \
            and not _is_in(self._stopped_at, exception)

    def rule_for_uncaught(self, exception: BaseException) -> ExceptionRule | None:
        """The rule to stop by, for an exception that ends its thread; not again where it was let out."""
        if isinstance(exception, _ENDS) or exception.__traceback__ is None or _is_in(self._let_out, exception):
            return None
        frame = innermost(exception.__traceback__).tb_frame
        return next((each for each in self.rules
                     if each.kind == UNCAUGHT and each.matches(exception, frame)), None)


def _remember(table: dict[int, int], exception: BaseException) -> None:
    for oldest in list(table)[:1 - _MOST_REMEMBERED]:
        table.pop(oldest, None)               # others may do so at the same time
    if exception.__traceback__ is not None:
        table[id(exception)] = id(innermost(exception.__traceback__))


def _is_in(table: dict[int, int], exception: BaseException) -> bool:
    return exception.__traceback__ is not None and table.get(id(exception)) == id(innermost(exception.__traceback__))


def innermost(traceback: TracebackType) -> TracebackType:
    """The last entry of a traceback: where the exception was raised."""
    while traceback.tb_next is not None:
        traceback = traceback.tb_next
    return traceback


def parse_rule(text: str, resolve: Callable[[str], object], kind: str | None = None) -> ExceptionRule:
    """The rule of a text `[raised|uncaught] [CLASS] [if CONDITION]`; ValueError for what is none.

    With `kind`, the text does not begin with it.
    """
    rest = text.strip()
    if kind is None:
        kind = RAISED
        first, _, others = rest.partition(" ")
        if first in KINDS:
            kind, rest = first, others.strip()
    class_name, condition = rest, None
    if rest.startswith("if ") or rest == "if":
        class_name, condition = "", rest[2:].strip()
    elif " " in rest:
        class_name, _, others = rest.partition(" ")
        if not others.strip().startswith("if "):
            raise ValueError("'if' expected before %s" % others.strip())
        condition = others.strip()[2:].strip()
    if condition == "":
        raise ValueError("a condition is expected after 'if'")
    return ExceptionRule(kind, class_name or None, condition, resolve)


# ---- Where threads begin and end ----

# Functions that end a thread by reporting its exception, and the name that they do it by.
def places_of_uncaught() -> list[tuple[CodeType, set[int]]]:
    """The lines that are reached when an exception ends a thread of `threading`."""
    code, lines = _lines_that_name("_invoke_excepthook")
    return [(code, set(lines))] if code is not None and lines else []


def places_of_beginning() -> list[tuple[CodeType, set[int]]]:
    """The line that is reached when a thread of `threading` has begun, and has its name."""
    code, lines = _lines_that_name("_trace_hook")
    return [(code, {min(lines)})] if code is not None and lines else []


def _lines_that_name(name: str) -> tuple[CodeType | None, list[int]]:
    """In the function that runs a thread of `threading`; None for one that a library has put there."""
    code = getattr(threading.Thread._bootstrap_inner, "__code__", None)     # type: ignore[attr-defined]
    return code, [each.positions.lineno for each in (dis.get_instructions(code) if code is not None else ())
                  if each.argval == name and each.positions is not None and each.positions.lineno is not None]
