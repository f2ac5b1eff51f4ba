"""Colours of source lines on 3.12 and 3.13, as the prompt of later versions has them."""

from __future__ import annotations

import io
import keyword
import os
import token
import tokenize

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterator
    from typing import Any

_RESET = "\x1b[0m"
_KEYWORD, _DEFINITION, _STRING, _NUMBER, _COMMENT, _BUILTIN = (
    "\x1b[1;34m", "\x1b[1m", "\x1b[32m", "\x1b[33m", "\x1b[31m", "\x1b[36m")

_BY_TYPE = {token.STRING: _STRING, token.NUMBER: _NUMBER, token.COMMENT: _COMMENT,
            token.FSTRING_START: _STRING, token.FSTRING_MIDDLE: _STRING, token.FSTRING_END: _STRING}
_BUILTIN_NAMES = frozenset(vars(__import__("builtins")))


def are_wanted(stream: Any) -> bool:
    """True for a terminal that shows colours, unless the user has said otherwise."""
    environment = os.environ
    if environment.get("PYTHON_COLORS") in ("0", "1"):
        return environment["PYTHON_COLORS"] == "1"
    if environment.get("NO_COLOR"):
        return False
    if environment.get("FORCE_COLOR"):
        return True
    try:
        return environment.get("TERM") != "dumb" and os.isatty(stream.fileno())
    except (AttributeError, OSError, ValueError):
        return False


def highlight(line: str) -> str:
    """The source line with its parts coloured; it may be a part of a statement."""
    text, position = "", 0
    for start, end, color in _colored_parts(line):
        if start >= position:
            text += line[position:start] + color + line[start:end] + _RESET
            position = end
    return text + line[position:]


def _colored_parts(line: str) -> Iterator[tuple[int, int, str]]:
    last = ""
    try:
        for each in tokenize.generate_tokens(io.StringIO(line).readline):
            if each.start[0] > 1:
                return
            color = _BY_TYPE.get(each.type)
            if each.type == token.NAME:
                color = _name_color(each.string, last)
            last = each.string
            if color is not None and each.end[0] == 1:
                yield each.start[1], each.end[1], color
    except (tokenize.TokenError, SyntaxError):    # a statement that goes on in the next line
        return


def _name_color(name: str, last: str) -> str | None:
    if keyword.iskeyword(name):
        return _KEYWORD
    if last in ("def", "class"):
        return _DEFINITION
    return _BUILTIN if last != "." and name in _BUILTIN_NAMES else None
