"""Breakpoints on functions by name, in what has been imported and in what will be.

`name`, `Class.method`, and parts of such a name from its end on, are looked for in the user's own
code; with the module before it, `module.name`, in all code.
"""

from __future__ import annotations

import inspect
import linecache
import os
import re

from brixdebug.dap.breakpoints import breakpoint_fields
from brixdebug.dap.sources import functions_in, loaded_modules
from brixdebug.libraries import is_library

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterable, Iterator
    from types import CodeType
    from typing import Any

    from brixdebug.dap.asking import Arguments
    from brixdebug.dap.session import Handler, Request, Session

_NAME = re.compile(r"[^\W\d]\w*(\.[^\W\d]\w*)*$")
_NOT_LOADED = "no function of this name has been loaded so far"


class FunctionBreakpoint:
    """One of them: a breakpoint of the debugger for each function that has the name."""

    def __init__(self, breakpoint_id: int, name: str, fields: dict[str, Any]) -> None:
        self.id = breakpoint_id
        self.name = name
        self._fields = fields
        self._last_part = name.rpartition(".")[2]
        self.places: dict[tuple[str, int], int] = {}     # path and first line of a function -> debugger's number

    def may_be_in(self, text: str) -> bool:
        return re.search(r"\bdef\s+%s\b" % re.escape(self._last_part), text) is not None

    def may_be(self, qualified_name: str) -> bool:
        return qualified_name.rpartition(".")[2] == self._last_part

    def names(self, qualified_name: str, modules: Iterable[str], is_own: bool) -> bool:
        if len(self.name) <= len(qualified_name):
            return is_own and ("." + qualified_name).endswith("." + self.name)
        return any((".%s.%s" % (module, qualified_name)).endswith("." + self.name) for module in modules)

    def set_at(self, session: Session, path: str, line: int, code_name: str) -> bool:
        """True when this is a new place."""
        if (path, line) in self.places:
            return False
        debugger: Any = session.debugger
        if debugger.set_break(path, line, funcname=code_name, **self._fields) is not None:
            return False
        number = debugger.get_breaks(path, line)[-1].number
        self.places[path, line] = number
        session.breakpoint_ids.enter(number, self.id, is_function=True)
        return True

    def clear(self, session: Session) -> None:
        for number in self.places.values():
            session.debugger.clear_bpbynumber(number)
            session.breakpoint_ids.drop(number)

    def row(self, session: Session) -> dict[str, Any]:
        if not self.places:
            return {"id": self.id, "verified": False, "message": _NOT_LOADED, "reason": "pending"}
        path, line = next(iter(self.places))
        row: dict[str, Any] = {"id": self.id, "verified": True, "line": session.client_line(line)}
        source = session.source(path)
        if source is not None:
            row["source"] = source
        return row


class FunctionBreakpoints:
    """All those of a client."""

    def __init__(self, session: Session) -> None:
        self._session = session
        self._all: list[FunctionBreakpoint] = []

    def replace(self, wanted: list[Arguments]) -> list[dict[str, Any]]:
        for each in self._all:
            each.clear(self._session)
        self._all = []
        rows = [self._add(each) for each in wanted]
        self._session.debugger.await_code(bool(self._all))
        return rows

    def _add(self, wanted: Arguments) -> dict[str, Any]:
        name = wanted.needed_text("name").strip().removesuffix("()")
        try:
            if _NAME.match(name) is None:
                raise ValueError("the name of a function expected, such as name, Class.method or module.name")
            fields = breakpoint_fields(wanted)
        except ValueError as error:
            return {"verified": False, "message": str(error), "reason": "failed"}
        added = FunctionBreakpoint(self._session.breakpoint_ids.new(), name, fields)
        for path in self._loaded_files():
            self._look_in_file(added, path)
        self._all.append(added)
        return added.row(self._session)

    def _loaded_files(self) -> Iterator[str]:
        program = self._session.server.program[0]
        if os.path.isfile(program):
            yield os.path.abspath(program)
        for _, names in loaded_modules():
            path = names.get("__file__")
            if isinstance(path, str) and path.endswith(".py"):
                yield path

    def _look_in_file(self, wanted: FunctionBreakpoint, path: str) -> None:
        is_own = not is_library(path)
        modules = _modules_of(path)
        head = wanted.name.partition(".")[0]
        if not is_own and not any(head in module.split(".") for module in modules):
            return
        if not wanted.may_be_in("".join(linecache.getlines(path))):
            return
        for name, places in self._session.server.lines.functions(path).items():
            if wanted.names(name, modules, is_own):
                for line, code_name in places:
                    wanted.set_at(self._session, path, line, code_name)

    def look_at(self, code: CodeType) -> None:
        """Code is new: it may have functions with these names.  Called with the turn."""
        path = code.co_filename
        functions = functions_in(code) if os.path.isabs(path) else {}
        for each in self._all:
            found = {name: places for name, places in functions.items() if each.may_be(name)}
            if not found:
                continue
            is_own, modules = not is_library(path), _modules_of(path)
            is_new = [each.set_at(self._session, path, line, code_name) for name, places in found.items()
                      if each.names(name, modules, is_own) for line, code_name in places]
            if any(is_new):
                self._session.wire.event("breakpoint", {"reason": "changed", "breakpoint": each.row(self._session)})


def _modules_of(path: str) -> list[str]:
    """The names that a file has as a module: under `__main__`, its own too."""
    names = [name for name, variables in loaded_modules() if variables.get("__file__") == path]
    stem = inspect.getmodulename(path)
    return names if stem is None else [*names, stem]


def on_set_function_breakpoints(session: Session, request: Request) -> Any:
    wanted = request.arguments.objects("breakpoints")

    def change(session: Session, request: Request) -> Any:
        functions = session.kept.setdefault("functions", FunctionBreakpoints(session))
        session.on_new_code = functions.look_at
        return {"breakpoints": functions.replace(wanted)}

    return request.later(change, session.debugger.in_turn)


HANDLERS: dict[str, Handler] = {
    "setFunctionBreakpoints": on_set_function_breakpoints,
}
