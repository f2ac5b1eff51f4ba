"""Requests that set breakpoints."""

from __future__ import annotations

import builtins
import os
import sys

from brixdebug.conditions import HitCondition, LogText, compile_expression
from brixdebug.exceptions import KINDS, parse_rule

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

    from brixdebug.dap.asking import Arguments
    from brixdebug.dap.server import Handler, Request, Session
    from brixdebug.exceptions import ExceptionStops


def on_set_breakpoints(session: Session, request: Request) -> Any:
    source = request.arguments.object("source")
    path = session.program_path(source)
    wanted = request.arguments.objects("breakpoints")

    def change(session: Session, request: Request) -> Any:
        return {"breakpoints": _replace(session, path, source, wanted)}

    return request.later(change, session.debugger.in_turn)


def _replace(session: Session, path: str, source: Arguments, wanted: list[Arguments]) -> list[dict[str, Any]]:
    """The file has these breakpoints from now on, and no others."""
    debugger = session.debugger
    for number in session.file_breakpoints.pop(path, ()):
        debugger.clear_bpbynumber(number)
    rows, numbers = [], []
    for each in wanted:
        row = _set_one(session, path, each)
        row["source"] = source.values
        if "id" in row:
            numbers.append(row["id"])
        rows.append(row)
    session.file_breakpoints[path] = numbers
    return rows


def _set_one(session: Session, path: str, wanted: Arguments) -> dict[str, Any]:
    asked = session.program_line(wanted.needed_integer("line"))
    if not os.path.exists(path):
        return _unverified(session, asked, "there is no file %s where the program runs" % path)
    line = session.server.lines.next_from(path, asked)
    if line is None:
        return _unverified(session, asked, "no statement begins on this line or after it")
    return _add(session, path, line, wanted)


def _add(session: Session, path: str, line: int, wanted: Arguments) -> dict[str, Any]:
    debugger = session.debugger
    condition = wanted.text("condition") or None
    try:
        if condition is not None:
            condition = condition.strip()
            compile_expression(condition)
        hit_condition = _hit_condition(wanted.text("hitCondition"))
        log_text = _log_text(wanted.text("logMessage"))
    except ValueError as error:
        return _unverified(session, line, str(error))
    error_text = debugger.set_break(path, line, cond=condition)
    if error_text is not None:
        return _unverified(session, line, error_text)
    # Nobody stops at it before it is whole: this thread has the turn.
    breakpoint: Any = debugger.get_breaks(path, line)[-1]
    breakpoint.hit_condition, breakpoint.log_text = hit_condition, log_text
    return {"id": breakpoint.number, "verified": True, "line": session.client_line(line)}


def _hit_condition(text: str | None) -> HitCondition | None:
    """As editors' users write it: a number alone is the hit to stop at."""
    text = (text or "").strip()
    if not text:
        return None
    return HitCondition.parse("== " + text if text.isascii() and text.isdigit() else text)


def _log_text(text: str | None) -> LogText | None:
    return LogText(text) if text else None


def _unverified(session: Session, line: int, text: str) -> dict[str, Any]:
    return {"verified": False, "line": session.client_line(line), "message": text, "reason": "failed"}


def on_breakpoint_locations(session: Session, request: Request) -> Any:
    path = session.program_path(request.arguments.object("source"))
    first = session.program_line(request.arguments.needed_integer("line"))
    last = session.program_line(request.arguments.integer("endLine", request.arguments.values["line"]))
    return {"breakpoints": [{"line": session.client_line(line)} for line in session.server.lines.of(path)
                            if first <= line <= last]}


def on_set_exception_breakpoints(session: Session, request: Request) -> Any:
    wanted = [(name, "") for name in request.arguments.texts("filters")]
    wanted += [(each.needed_text("filterId"), each.text("condition", ""))
               for each in request.arguments.objects("filterOptions")]

    def change(session: Session, request: Request) -> Any:
        stops = session.debugger.exception_stops
        stops.clear()
        rows = [_add_rule(stops, kind, condition) for kind, condition in wanted]
        session.debugger.exceptions_changed()
        return {"breakpoints": rows}

    return request.later(change, session.debugger.in_turn)


def _add_rule(stops: ExceptionStops, kind: str, condition: str) -> dict[str, Any]:
    try:
        if kind not in KINDS:
            raise ValueError("there is no filter %r" % kind)
        stops.add(parse_rule("%s %s" % (kind, condition), _find_class))
    except ValueError as error:
        return {"verified": False, "message": str(error), "reason": "failed"}
    return {"verified": True}


def _find_class(name: str) -> object:
    """A class by its name, built in or in a module that has been imported."""
    module_name, _, rest = name.rpartition(".")
    found: object = sys.modules[module_name] if module_name else builtins
    return getattr(found, rest)


HANDLERS: dict[str, Handler] = {
    "setBreakpoints": on_set_breakpoints,
    "breakpointLocations": on_breakpoint_locations,
    "setExceptionBreakpoints": on_set_exception_breakpoints,
}
