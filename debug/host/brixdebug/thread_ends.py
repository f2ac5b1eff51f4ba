"""How a thread is ended that catches what ends it.

`quit` has `bdb.BdbQuit` raised in each thread.  A program that catches every Exception goes on
after that, so it is raised again: at a line where nothing is cleaned up.
"""

from __future__ import annotations

import ast
import bdb
import dis
import functools
import linecache
import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterator
    from types import CodeType, FrameType

_UNIT = 2                     # bytes, of which places in code are counted

# How often a call may catch it before handlers are ended too, and before all lines are alike.
_OFTEN = 2
_VERY_OFTEN = 4

# How often an event loop may hand it from task to task.
_MOST_PASSES = 100

# The instruction that makes an exception the one that is handled: its line is reached before.
_BEGINS_HANDLER = dis.opmap["PUSH_EXC_INFO"]


class Catcher:
    """A call that may catch what ends its thread, as a loop does that goes on after every error.

    Handlers are left in peace at first, for they clean up.  A call that keeps catching is ended in
    one handler, then in one inside of another, and so on: it cannot go on for ever.
    """

    def __init__(self, passes: dict[CodeType, int]) -> None:
        """`passes`: how often each function of an event loop has handed it on in this thread, whichever call that was."""
        self._passes = passes
        self._caught = 0
        self._most_handlers = 0
        self._handlers = 0            # that may still be ended until it has caught again

    def has_to_be_ended(self, frame: FrameType) -> bool:
        """Whether it has to be raised again at the line that `frame`, its frame, has reached."""
        if comes_of_quit(sys.exception()) or frame.f_code.co_code[frame.f_lasti] == _BEGINS_HANDLER:
            self._handlers -= 1
            return self._handlers >= 0
        passes = self._passes.get(frame.f_code, 0)
        if passes < _MOST_PASSES and _is_handed_on(frame):
            self._passes[frame.f_code] = passes + 1
            return False
        if self._caught < _VERY_OFTEN and frame.f_lineno in _lines_of_blocks(frame.f_code.co_filename)[0]:
            return False
        self._caught += 1
        self._handlers = 0
        if self._caught % _OFTEN == 0:
            self._most_handlers += 1
            self._handlers = self._most_handlers
        return True


def is_without_handlers(frame: FrameType) -> bool:
    """True at the line of a `try` inside another block: what is raised just there passes by the handlers of that block.

    The instruction of a `try` cannot fail by itself, so the interpreter has no handlers for it.  There is none
    where statements follow on the line: the first of their instructions is reached then.
    """
    return frame.f_lineno in _lines_of_blocks(frame.f_code.co_filename)[1] \
        and not _has_handler(frame.f_code.co_exceptiontable, frame.f_lasti)


def comes_of_quit(error: BaseException | None) -> bool:
    """True for what ends a thread when the user has quit, and for what was raised while that was handled."""
    seen: set[int] = set()
    while error is not None and id(error) not in seen:
        if isinstance(error, bdb.BdbQuit):
            return True
        seen.add(id(error))
        error = error.__context__
    return False


def _is_handed_on(frame: FrameType) -> bool:
    """True in an event loop of `asyncio` that has still something to do: a task that was ended tells those that wait for it."""
    if not str(frame.f_globals.get("__name__")).startswith("asyncio."):
        return False
    if frame.f_code.co_name != "run_forever":
        return True
    loop = frame.f_locals.get("self")
    return bool(getattr(loop, "_ready", ())) or getattr(loop, "_stopping", False)


def _has_handler(table: bytes, offset: int) -> bool:
    """Whether an exception at this instruction is handled in its code, by the code's table of exceptions."""
    parts = iter(table)
    for first in parts:
        start = _number(first & 0x7f, parts)  # the bit left out marks the first byte of an entry
        length = _number(next(parts), parts)
        if start <= offset // _UNIT < start + length:
            return True
        for _ in range(2):                    # the handler, and what it finds on the stack
            _number(next(parts), parts)
    return False


def _number(first: int, parts: Iterator[int]) -> int:
    """One of the table: six bits in each byte, and one that says whether more follow."""
    value, byte = first & 0x3f, first
    while byte & 0x40:
        byte = next(parts)
        value = value << 6 | byte & 0x3f
    return value


@functools.lru_cache(maxsize=64)
def _lines_of_blocks(filename: str) -> tuple[frozenset[int], frozenset[int]]:
    """The lines that clean up, and those without the handlers of the blocks around them; none without a source.

    The first are those of `finally` blocks and of `with`, which is reached again when its block
    ends, the second those of each `try` inside another block.
    """
    try:
        tree = ast.parse("".join(linecache.getlines(filename)))
    except (SyntaxError, ValueError):
        return frozenset(), frozenset()
    cleaning: set[int] = set()
    without_handlers: set[int] = set()
    for node in ast.walk(tree):
        if isinstance(node, (ast.Try, ast.TryStar)) and node.finalbody:
            cleaning.update(range(node.finalbody[0].lineno, (node.finalbody[-1].end_lineno or 0) + 1))
        elif isinstance(node, (ast.With, ast.AsyncWith)):
            cleaning.update(range(node.lineno, max(node.lineno + 1, node.body[0].lineno)))
        if isinstance(node, (ast.Try, ast.TryStar, ast.With, ast.AsyncWith)):
            without_handlers.update(inner.lineno for inner in ast.walk(node)
                                    if isinstance(inner, (ast.Try, ast.TryStar)) and inner is not node)
    return frozenset(cleaning), frozenset(without_handlers)
