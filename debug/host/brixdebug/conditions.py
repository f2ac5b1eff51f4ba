"""When a place that was reached is one to stop at: conditions, hit conditions, and texts to be logged there.

Each is parsed once, when it is typed, and what cannot be parsed is a `ValueError` with a text
for the user.  A breakpoint's condition is evaluated each time its line is reached, so it is
compiled for the code object that it belongs to.
"""

from __future__ import annotations

import ast
import inspect
import operator
import re
import types

from brixdebug.raising import is_of_signal_handler

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType
    from typing import Any, Self

    Evaluator = Callable[[FrameType], object]

# Names that look at the namespace they are called in.
_NAMESPACE_NAMES = {"dir", "eval", "exec", "locals", "super", "vars"}

# What has names of its own, or gives names to the frame.
_SCOPES = (ast.Lambda, ast.ListComp, ast.SetComp, ast.DictComp, ast.GeneratorExp, ast.NamedExpr)


# ---- Conditions ----

def compile_expression(text: str) -> CodeType:
    """The code of an expression; ValueError for what is none."""
    try:
        return compile(text.lstrip(), "<string>", "eval", dont_inherit=True)
    except (SyntaxError, ValueError) as error:       # ValueError: a null character
        raise ValueError(getattr(error, "msg", None) or str(error)) from None


def evaluator(text: str, code: CodeType, module_globals: dict[str, Any]) -> Evaluator:
    """A callable that evaluates an expression in frames of `code`; it raises what the expression raises.

    `eval` makes a function for each call and looks every name up in the frame's variables.
    So a plain expression becomes a function whose parameters are the variables it reads.
    """
    compiled = compile_expression(text)

    def evaluate_anything(frame: FrameType) -> object:
        return eval(compiled, frame.f_globals, frame.f_locals)

    names = _variables_read(text, code)
    if names is None:
        return evaluate_anything
    function = _as_function(text, names, module_globals)
    if not names:
        def evaluate_without(frame: FrameType) -> object:
            return function() if frame.f_globals is module_globals else evaluate_anything(frame)
        return evaluate_without
    if len(names) == 1:
        name, = names

        def evaluate_one(frame: FrameType) -> object:
            if frame.f_globals is not module_globals:
                return evaluate_anything(frame)
            try:
                value = frame.f_locals[name]
            except KeyError:                  # not bound yet: there may be a global of this name
                return evaluate_anything(frame)
            return function(value)
        return evaluate_one

    if len(names) == 2:
        name, other_name = names

        def evaluate_two(frame: FrameType) -> object:
            if frame.f_globals is not module_globals:
                return evaluate_anything(frame)
            variables = frame.f_locals
            try:
                value, other_value = variables[name], variables[other_name]
            except KeyError:
                return evaluate_anything(frame)
            return function(value, other_value)
        return evaluate_two

    def evaluate_several(frame: FrameType) -> object:
        if frame.f_globals is not module_globals:
            return evaluate_anything(frame)
        variables = frame.f_locals
        try:
            values = [variables[name] for name in names]
        except KeyError:
            return evaluate_anything(frame)
        return function(*values)
    return evaluate_several


def _variables_read(text: str, code: CodeType) -> list[str] | None:
    """The variables of frames of `code` that the expression reads; None when that is not all it does."""
    if not code.co_flags & inspect.CO_OPTIMIZED:
        return None                           # the variables are a dictionary as it is
    nodes = list(ast.walk(ast.parse(text.lstrip(), mode="eval")))
    names = {node.id for node in nodes if isinstance(node, ast.Name)}
    if names & _NAMESPACE_NAMES or any(isinstance(node, _SCOPES) for node in nodes):
        return None
    return sorted(names.intersection(code.co_varnames + code.co_cellvars + code.co_freevars))


def _as_function(text: str, names: list[str], module_globals: dict[str, Any]) -> Callable[..., object]:
    tree = ast.parse("lambda %s: 0" % ", ".join(names), mode="eval")
    body: Any = tree.body
    body.body = ast.parse(text.lstrip(), mode="eval").body
    code = compile(tree, "<string>", "eval", dont_inherit=True)
    function_code = next(each for each in code.co_consts if isinstance(each, types.CodeType))
    return types.FunctionType(function_code, module_globals)


# ---- Hit conditions ----

_HIT_CONDITION = re.compile(r"(==|>=|<=|>|<|%)\s*([0-9]+)$")
HIT_OPERATORS: dict[str, Callable[[int, int], bool]] = {
    "==": operator.eq, ">=": operator.ge, "<=": operator.le, ">": operator.gt, "<": operator.lt,
    "%": lambda hits, number: hits % number == 0,
}


class HitCondition:
    """Which of the hits count: the one numbered N, those before, from or after N, each N-th."""

    def __init__(self, operator: str, number: int) -> None:
        self.operator = operator
        self.number = number

    @classmethod
    def parse(cls, text: str) -> Self:
        match = _HIT_CONDITION.match(text.strip())
        if match is None:
            raise ValueError("hit condition expected: == N, >= N, <= N, > N, < N or % N")
        number = int(match.group(2))
        if number == 0:
            raise ValueError("hits are counted from 1")
        return cls(match.group(1), number)

    def __str__(self) -> str:
        return "%s %d" % (self.operator, self.number)

    def matches(self, hits: int) -> bool:
        return HIT_OPERATORS[self.operator](hits, self.number)


# ---- Texts to be logged ----

class LogText:
    """A text with expressions in braces, each as in an f-string; `{{` and `}}` are braces."""

    def __init__(self, text: str) -> None:
        """ValueError for an expression that is none."""
        self.text = text
        self._parts: list[str | CodeType] = []
        position = 0
        while position < len(text):
            position = self._take_part(text, position)

    def _take_part(self, text: str, position: int) -> int:
        """Parse what stands at `position`; the position behind it."""
        if text.startswith(("{{", "}}"), position):
            self._parts.append(text[position])
            return position + 2
        if text[position] == "}":
            raise ValueError("'}' without '{' (a brace itself is written twice)")
        if text[position] == "{":
            end, code = _replacement_field(text, position)
            self._parts.append(code)
            return end
        end = position + 1
        while end < len(text) and text[end] not in "{}":
            end += 1
        self._parts.append(text[position:end])
        return end

    def render(self, frame: FrameType) -> str:
        """The text; an expression that fails shows its error in its place."""
        variables = frame.f_locals
        return "".join(part if isinstance(part, str) else _rendered(part, frame, variables)
                       for part in self._parts)


def _rendered(code: CodeType, frame: FrameType, variables: Any) -> str:
    try:
        result: str = eval(code, frame.f_globals, variables)
        return result
    except BaseException as error:
        if is_of_signal_handler(error):
            raise
        return "<%s>" % describe(error)


def describe(error: BaseException) -> str:
    """Type and text of an exception, whatever its class does when it is asked."""
    name = type(error).__name__
    try:
        text = str(error)
    except Exception:
        text = ""
    return "%s: %s" % (name, text) if text else name


def _replacement_field(text: str, start: int) -> tuple[int, CodeType]:
    """The end of the expression in braces at `start`, and its code."""
    problem = "'{' without '}'"
    end = text.find("}", start)
    while end >= 0:
        field = text[start:end + 1]
        try:
            tree = ast.parse("f'''%s'''" % field, mode="eval")
        except (SyntaxError, ValueError) as error:
            # That of the shortest try names what is wrong with it.
            if problem == "'{' without '}'":
                problem = getattr(error, "msg", str(error)).replace("f-string: ", "")
        else:
            if isinstance(tree.body, ast.JoinedStr):
                return end + 1, compile(tree, "<string>", "eval", dont_inherit=True)
        end = text.find("}", end + 1)
    raise ValueError("%s: %s" % (problem, text[start:]))
