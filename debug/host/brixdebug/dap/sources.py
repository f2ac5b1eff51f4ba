"""Source files as the client and the program name them, and the lines of them that can stop."""

from __future__ import annotations

import ast
import bisect
import functools
import inspect
import linecache
import os
import re
import stat
import sys

from brixdebug import statements

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterator
    from types import CodeType
    from typing import Any

    from brixdebug.statements import Span

    # qualified name -> first line and plain name of each function that has it
    Functions = dict[str, list[tuple[int, str]]]


class PathMap:
    """Translates between the folders of the editor and those of the program."""

    def __init__(self, mappings: list[tuple[str, str]]) -> None:
        """Pairs of an editor's folder and the program's folder with the same files."""
        self._mappings = [(_without_end(local), _without_end(_absolute(remote))) for local, remote in mappings]

    def to_program(self, path: str) -> str:
        for local, remote in self._mappings:
            if (rest := _rest(path, local)) is not None:
                return remote + rest.replace("\\", "/")
        return path

    def to_client(self, path: str) -> str:
        for local, remote in self._mappings:
            if (rest := _rest(path, remote)) is not None:
                return local + (rest.replace("/", "\\") if "\\" in local and "/" not in local else rest)
        return path


# The standard library's `urllib.parse` takes as long to be imported as a tenth of all the rest.

_ESCAPED = re.compile(rb"%([0-9A-Fa-f]{2})")
_TO_BE_ESCAPED = re.compile(rb"[^A-Za-z0-9._~/-]")
_URI = re.compile("file:(?=/)(?://[^/]*)?|[A-Za-z][A-Za-z0-9+.-]*://[^/]*", re.IGNORECASE)
_DRIVE = re.compile(r"/?([A-Za-z]:)(?=[/\\])")


def path_of_uri(uri: str) -> str:
    """The path in "file:///a%20folder/program.py"; of what is no URI, itself."""
    start = _URI.match(uri)
    if start is None:
        return uri
    path = re.split("[?#]", uri[start.end():], maxsplit=1)[0]
    path = _ESCAPED.sub(lambda found: bytes.fromhex(found[1].decode()), path.encode()).decode("utf-8", "replace")
    return path[1:].replace("/", "\\") if _DRIVE.match(path) else path


def uri_of_path(path: str) -> str:
    if _DRIVE.match(path):
        path = "/" + path.replace("\\", "/")
    return "file://" + _TO_BE_ESCAPED.sub(lambda found: b"%%%02X" % found[0][0], path.encode("utf-8", "surrogateescape")).decode()


def _absolute(path: str) -> str:
    return os.path.abspath(path) if path == "." or path.startswith("./") else path


def _without_end(path: str) -> str:
    return path.rstrip("/\\") if len(path) > 1 else path


def _rest(path: str, folder: str) -> str | None:
    if path == folder:
        return ""
    if path.startswith(folder) and path[len(folder)] in "/\\" or folder == "/" and path.startswith("/"):
        return path[len(folder):] if folder != "/" else path
    return None


# -- modules ---------------------------------------------------------------------------------------

def loaded_modules() -> list[tuple[str, dict[str, Any]]]:
    """The name and the variables of each; none of their code is run, and one whose load is put off stays so."""
    modules = []
    for name, module in list(sys.modules.items()):
        try:
            names = object.__getattribute__(module, "__dict__")
        except AttributeError:
            continue                         # it is whatever the program has put there
        if isinstance(names, dict):
            modules.append((name, names))
    return modules


# -- lines that can stop ---------------------------------------------------------------------------

class Lines:
    """The lines of files on which a statement begins, read again when a file has changed."""

    def __init__(self) -> None:
        self._known: dict[str, _File] = {}

    def of(self, path: str) -> list[int]:
        """Sorted; empty when the file cannot be read or compiled."""
        return self._entry(path).lines

    def functions(self, path: str) -> Functions:
        return self._entry(path).functions

    def statements(self, path: str) -> dict[int, list[Span]]:
        """Those of lines that have more than one."""
        return self._entry(path).statements

    def next_from(self, path: str, line: int) -> int | None:
        """The first line from `line` on that can stop."""
        lines = self.of(path)
        index = bisect.bisect_left(lines, line)
        return lines[index] if index < len(lines) else None

    def _entry(self, path: str) -> _File:
        try:
            status = os.stat(path)
            mark: Any = stat.S_ISREG(status.st_mode), status.st_mtime_ns, status.st_size
        except OSError:
            mark = None
        known = self._known.get(path)
        if known is None or known.mark != mark:
            known = self._known[path] = _File(path, mark)
        return known


class _File:
    """What is in a file; nothing when it cannot be read or compiled."""

    def __init__(self, path: str, mark: Any) -> None:
        self.mark = mark                     # tells whether the file is still what has been read
        self.lines: list[int] = []
        self.functions: Functions = {}
        self._path = path
        if mark is not None and not mark[0]:
            return                           # a pipe or a device is not to be waited for
        linecache.checkcache(path)
        try:
            code = compile("".join(linecache.getlines(path)), path, "exec", dont_inherit=True)
        except (SyntaxError, ValueError, RecursionError, MemoryError):
            return
        self.lines = sorted({line for each in walk_code(code) for line in stop_lines(each)})
        self.functions = functions_in(code)

    @functools.cached_property
    def statements(self) -> dict[int, list[Span]]:
        """For few breakpoints, and it takes several times as long as all the rest."""
        if not self.lines:
            return {}
        try:
            tree = ast.parse("".join(linecache.getlines(self._path)), self._path)
            code = compile(tree, self._path, "exec", dont_inherit=True)
        except (SyntaxError, ValueError, RecursionError, MemoryError):
            return {}
        return statements.with_code(statements.spans(tree), walk_code(code))


def functions_in(code: CodeType) -> Functions:
    """The functions of `code`, and it itself if it is one."""
    functions: Functions = {}
    for each in walk_code(code):
        if each.co_flags & inspect.CO_OPTIMIZED and not each.co_name.startswith("<"):
            functions.setdefault(each.co_qualname.replace("<locals>.", ""), []).append(
                (each.co_firstlineno, each.co_name))
    return functions


def column_in_text(line: str, column: int) -> int:
    """The column in units of UTF-16, as clients count, of one in bytes, as the compiler does."""
    before = line.encode()[:column].decode(errors="replace")
    return len(before.encode("utf-16-le")) // 2


def walk_code(code: CodeType) -> Iterator[CodeType]:
    """`code` and all code inside it."""
    yield code
    for constant in code.co_consts:
        if hasattr(constant, "co_consts"):
            yield from walk_code(constant)


def stop_lines(code: CodeType) -> Iterator[int]:
    """The lines on which an event is reported.  That of the `def` itself is the enclosing code's."""
    first = code.co_firstlineno
    is_function = code.co_name != "<module>"
    own = {line for _, _, line in code.co_lines() if line}
    for line in own:
        # The start of a function on lines of its own reports no line event.
        if not (is_function and line == first and len(own) > 1):
            yield line
