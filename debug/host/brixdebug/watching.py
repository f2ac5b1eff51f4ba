"""Watches: expressions whose change of value stops the thread that made it.

A watch on local names looks at one call of one function, so it needs the lines of this function
alone.  One on anything else, such as an attribute or a global name, needs all lines of all threads.
A value is looked at before each line: what has changed was changed by the line before.
"""

from __future__ import annotations

import ast
import bdb
import collections
import dis
import sys
import threading
import weakref

from brixdebug import conditions
from brixdebug.locks import ARE_PARALLEL
from brixdebug.raising import is_of_signal_handler

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable, Mapping
    from types import CodeType, FrameType
    from typing import Any

    # id of a frame, its code, the line that it executes
    Step = tuple[int, CodeType, int]

# Containers that are compared with a copy: the change of one is the change of its value.
_COPIED = (list, dict, set, bytearray, collections.deque)


class Value:
    """What an expression has given: an object, or the exception that it raised."""

    def __init__(self, value: object, error: BaseException | None = None) -> None:
        self.error = conditions.describe(error) if error is not None else None
        self.is_copy = type(value) in _COPIED
        self._value: Any = value
        if self.is_copy:
            copied: Any = value
            self._value = copied.copy()

    def is_same(self, other: Value) -> bool:
        if self.error is not None or other.error is not None:
            return self.error == other.error
        ours, others = self._value, other._value
        if ours is others:
            return True
        if type(ours) is not type(others):
            return False
        try:
            return bool(ours == others) or isinstance(ours, float) and ours != ours and others != others
        except Exception:
            return False                      # an array, or a class that cannot compare

    def is_true(self) -> bool:
        try:
            return bool(self._value)
        except Exception:
            return True

    def shown_by(self, show: Callable[[object], str]) -> str:
        return "<%s>" % self.error if self.error is not None else show(self._value)

    def __str__(self) -> str:
        if self.error is not None:
            return "<%s>" % self.error
        try:
            return repr(self._value)
        except Exception as error:
            return "<repr raised %s>" % conditions.describe(error)


class Watch:
    """One of them; in the table of all breakpoints it has its number, and takes their commands."""

    temporary = False
    funcname = None
    hit_condition: conditions.HitCondition | None = None
    file = ""
    line = 0

    def __init__(self, expression: str, frame: FrameType, variables: Mapping[str, Any],
                 condition: str | None = None) -> None:
        """ValueError for what is no expression."""
        self.expression = expression
        self.cond = condition
        self.enabled = True
        self.ignore = 0
        self.hits = 0
        self.number = 0
        self.code = conditions.compile_expression(expression)
        conditions.compile_expression(condition or "True")
        self.globals = frame.f_globals
        names = _Names(expression, frame, variables)
        self.changed_names = names.changed
        self.is_everywhere = names.is_everywhere
        self.is_of_call = bool(names.bare)    # of local names: it ends when the call does
        self.frame: FrameType | None = frame if names.local else None
        self.function = frame.f_code.co_qualname
        self._roots = {name: _reference(variables[name]) for name in names.local - names.bare
                       if name in variables}
        # None: to be taken as it is when it is looked at next.
        self.value: Value | None = self._evaluate(self.code, variables)
        self.last: Value = self.value         # that was seen last
        self._awaits_value = False            # the names are not there yet, after a restart

    def _evaluate(self, code: CodeType, variables: Mapping[str, Any]) -> Value:
        try:
            return Value(eval(code, self.globals, variables))
        except BaseException as error:
            if is_of_signal_handler(error):
                raise
            return Value(None, error)

    def _variables(self) -> Mapping[str, Any]:
        if self.frame is None:
            return {name: root() for name, root in self._roots.items()}
        variables = self.frame.f_locals
        for name in self._roots:
            if name in variables:
                self._roots[name] = _reference(variables[name])
        return variables

    def look(self) -> Value:
        """The value now."""
        return self._evaluate(self.code, self._variables())

    def is_changed(self) -> bool:
        """False also when its object is gone: that is no change, and ends it elsewhere."""
        if self.is_over:
            return False
        value = self.look()
        if self._awaits_value:
            if value.error is not None:
                return False
            self._awaits_value = False
            self.value = None
        if self.value is None:
            self.value = self.last = value
        return not value.is_same(self.value)

    def is_true(self) -> bool:
        """Whether the condition holds, where the expression is evaluated; one that fails does."""
        if not self.cond:
            return True
        value = self._evaluate(conditions.compile_expression(self.cond), self._variables())
        return value.error is not None or value.is_true()

    def leave_call(self) -> bool:
        """The call that it was set in ends; True when the watch goes on with the objects it has seen."""
        if not self.is_of_call:
            self._variables()
        self.frame = None
        return not self.is_of_call

    @property
    def is_over(self) -> bool:
        """Nothing is left that could change."""
        return self.frame is None and any(root() is None for root in self._roots.values())

    def begin_anew(self) -> None:
        """The program begins again: its names are not there, and are no change when they come."""
        self._awaits_value = True

    # -- what breakpoints have ---------------------------------------------------------

    def enable(self) -> None:
        self.enabled = True
        self.value = None

    def disable(self) -> None:
        self.enabled = False

    def deleteMe(self) -> None:
        table: Any = bdb.Breakpoint.bpbynumber
        table[self.number] = None
        self.frame = None

    def bpprint(self, out: Any = None) -> None:
        print(self.bpformat(), file=out or sys.stdout)

    def bpformat(self) -> str:
        text = "%-4dwatch        keep %s  %s" % (self.number, "yes" if self.enabled else "no ", self.expression)
        if self.cond:
            text += "\n\tstop only if %s" % self.cond
        if self.hit_condition is not None:
            text += "\n\tstop only at hits %s" % self.hit_condition
        if self.ignore:
            text += "\n\tignore next %d hits" % self.ignore
        if self.hits:
            text += "\n\twatch already hit %d time%s" % (self.hits, "" if self.hits == 1 else "s")
        return text

    def __str__(self) -> str:
        return "watch %d on %s" % (self.number, self.expression)


def _reference(value: Any) -> Callable[[], Any]:
    """Weak where that is possible: a watched object may go."""
    try:
        return weakref.ref(value)
    except TypeError:
        return lambda: value


class _Names:
    """What an expression looks at, in a frame."""

    def __init__(self, expression: str, frame: FrameType, variables: Mapping[str, Any]) -> None:
        tree = ast.parse(expression.lstrip(), mode="eval")
        nodes = list(ast.walk(tree))
        used = {node.id for node in nodes if isinstance(node, ast.Name)}
        code = frame.f_code
        if variables is frame.f_globals or frame.f_locals is frame.f_globals:
            local: set[str] = set()
        else:
            local = used.intersection(code.co_varnames + code.co_cellvars + code.co_freevars) \
                or used.intersection(variables)
        roots = [node.value.id for node in nodes if isinstance(node, (ast.Attribute, ast.Subscript))
                 and isinstance(node.value, ast.Name)]
        all_names = [node.id for node in nodes if isinstance(node, ast.Name)]
        self.local = local
        self.bare = {name for name in local if all_names.count(name) > roots.count(name)}
        shared = local.intersection(code.co_cellvars + code.co_freevars)
        builtins = {name for name in used - local if name not in frame.f_globals
                    and name in frame.f_builtins}
        reaches_out = (ast.Attribute, ast.Subscript, ast.Call, ast.ListComp, ast.SetComp, ast.DictComp,
                       ast.GeneratorExp, ast.Lambda)
        self.is_everywhere = bool(used - local - builtins or shared
                                  or any(isinstance(node, reaches_out) for node in nodes))
        # Names that an instruction stores to when it changes the value directly.
        self.changed = used | {node.attr for node in nodes if isinstance(node, ast.Attribute)}


class Change:
    """What a thread stops for: a watch, its two values, and the line that made the change."""

    def __init__(self, watch: Watch, old: Value, new: Value, step: Step | None, thread_id: int) -> None:
        self.watch = watch
        self.old = old
        self.new = new
        self.code: CodeType | None = step[1] if step is not None else None
        self.line = step[2] if step is not None else 0
        self.thread_id = thread_id


class Watches:
    """All that there are; they belong to the process, as breakpoints do."""

    def __init__(self) -> None:
        self.active: list[Watch] = []
        # thread id -> the lines that its calls execute, the innermost last
        self._steps: dict[int, list[Step]] = {}

    def add(self, watch: Watch) -> None:
        """Give it a number, and look at it from now on."""
        table: Any = bdb.Breakpoint
        watch.number = table.next
        table.next += 1
        table.bpbynumber.append(watch)
        if not self.active:
            self._steps = {}
        self.active = [*self.active, watch]
        for thread_id, frame in sys._current_frames().items():
            if not ARE_PARALLEL or thread_id == threading.get_ident():    # the others tell of their lines from the next one on
                self._steps.setdefault(thread_id, self._steps_of(frame))
        del frame                             # that of this very call may be among them

    @staticmethod
    def _steps_of(frame: FrameType | None) -> list[Step]:
        steps: list[Step] = []
        while frame is not None:
            if frame.f_lineno is not None:
                steps.append((id(frame), frame.f_code, frame.f_lineno))
            frame = frame.f_back
        return steps[::-1]

    def prune(self) -> None:
        """Forget those that have been deleted."""
        self.active = [each for each in self.active if _is_there(each)]

    @property
    def is_everywhere(self) -> bool:
        """All lines of all threads are needed."""
        return any(each.is_everywhere and each.enabled for each in self.active)

    def codes_of_calls(self) -> dict[int, FrameType]:
        """Frames of the calls that watches are bound to, by id of their code."""
        return {id(each.frame.f_code): each.frame for each in self.active if each.frame is not None}

    def begin_anew(self) -> None:
        """The program begins again."""
        self._steps = {}
        for each in self.active:
            each.begin_anew()

    def renew(self) -> None:
        """What the user has changed at the prompt is no change of the program's."""
        for each in self.active:
            each.value = None
            each.is_changed()

    # -- at each line ----------------------------------------------------------------------

    def changed(self, frame: FrameType) -> list[Watch]:
        """Those whose value is another before the next line of `frame` than before the last line."""
        return [each for each in self.active
                if each.enabled and (each.is_everywhere or each.frame is frame) and each.is_changed()]

    def step(self, frame: FrameType, line: int) -> None:
        """The thread is about to execute a line."""
        steps = self._steps.setdefault(threading.get_ident(), [])
        self._drop_ended(steps, id(frame), frame.f_code)
        steps.append((id(frame), frame.f_code, line))

    @staticmethod
    def _drop_ended(steps: list[Step], frame_id: int, code: CodeType) -> list[Step]:
        """Take the steps of `frame` and of the calls that it has made off; the innermost first."""
        for index in range(len(steps) - 1, -1, -1):
            if steps[index][0] == frame_id and steps[index][1] is code:
                dropped = steps[index:][::-1]
                del steps[index:]
                return dropped
        return []

    def take_changes(self, frame: FrameType, watches: Iterable[Watch]) -> list[Change]:
        """The changes to stop for; each is returned once.  One thread at a time calls this."""
        changes = []
        for each in watches:
            old, new = each.value, each.look()
            if not each.enabled or old is None or new.is_same(old) \
                    or each.is_over or not _is_there(each):
                continue
            each.value = each.last = new
            if not each.is_true():
                continue
            each.hits += 1
            if each.hit_condition is not None and not each.hit_condition.matches(each.hits):
                continue
            if each.ignore > 0:
                each.ignore -= 1
                continue
            thread_id, step = self._who_changed(each, frame)
            changes.append(Change(each, old, new, step, thread_id))
        return changes

    def _who_changed(self, watch: Watch, frame: FrameType) -> tuple[int, Step | None]:
        """The thread and the step that made the change.

        It is one of the steps of this thread since its last event, or, as threads change between
        two instructions, the step that another thread is in: the one that stores to the name.
        """
        own_id = threading.get_ident()
        steps = list(self._steps.get(own_id, []))
        own = self._drop_ended(list(steps), id(frame), frame.f_code) or steps[:-4:-1]
        if not watch.is_everywhere:
            own = [step for step in own if step[0] == id(watch.frame)]
        candidates = [(own_id, step) for step in own]
        if watch.is_everywhere:
            candidates += [(thread_id, last) for thread_id, others in list(self._steps.items())
                           if thread_id != own_id for last in others[-1:]]
        if not candidates:
            return own_id, None
        return max(candidates, key=lambda each: _stores(each[1], watch.changed_names))

    # -- at the end of a call ----------------------------------------------------------------

    def over(self) -> list[Watch]:
        """The watches whose objects are gone."""
        return [each for each in self.active if each.is_over]

    def of_call(self, frame: FrameType) -> list[Watch]:
        return [each for each in self.active if each.frame is frame]

    def end(self, watch: Watch) -> None:
        watch.deleteMe()
        self.prune()


def _is_there(watch: Watch) -> bool:
    table: Any = bdb.Breakpoint.bpbynumber
    return table[watch.number] is watch


def _stores(step: Step, names: set[str]) -> int:
    """How likely a line changes what has one of these names."""
    _, code, line = step
    score = 0
    for each in dis.get_instructions(code):
        if each.positions is None or each.positions.lineno != line:
            continue
        is_store = each.opname.startswith(("STORE_", "DELETE_"))
        used = each.argval if isinstance(each.argval, tuple) else (each.argval,)
        if is_store and names.intersection(name for name in used if isinstance(name, str)):
            return 2
        if is_store and "SUBSCR" in each.opname or each.opname.startswith("CALL"):
            score = 1
    return score
