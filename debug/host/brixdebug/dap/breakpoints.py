"""Requests that set breakpoints."""

from __future__ import annotations

import linecache
import os

from brixdebug.conditions import HitCondition, LogText, compile_expression
from brixdebug.dap.sources import column_in_text

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

    from brixdebug.dap.asking import Arguments
    from brixdebug.dap.session import Handler, Request, Session
    from brixdebug.statements import Span


def on_set_breakpoints(session: Session, request: Request) -> Any:
    source = request.arguments.object("source")
    path = session.program_path(source)
    wanted = request.arguments.objects("breakpoints")

    def change(session: Session, request: Request) -> Any:
        return {"breakpoints": _replace(session, path, source, wanted)}

    return request.later(change, session.debugger.in_turn)


def _replace(session: Session, path: str, source: Arguments, wanted: list[Arguments]) -> list[dict[str, Any]]:
    """The file has these breakpoints from now on, and no others."""
    for number in session.breakpoint_ids.of_file.pop(path, ()):
        session.debugger.clear_bpbynumber(number)
        session.breakpoint_ids.drop(number)
    return [{**_set_one(session, path, each), "source": source.values} for each in wanted]


def _set_one(session: Session, path: str, wanted: Arguments) -> dict[str, Any]:
    asked = session.program_line(wanted.needed_integer("line"))
    if not os.path.exists(path):
        return _unverified(session, asked, "there is no file %s where the program runs" % path)
    line = session.server.lines.next_from(path, asked)
    if line is None:
        return _unverified(session, asked, "no statement begins on this line or after it")
    try:
        fields = breakpoint_fields(wanted)
    except ValueError as error:
        return _unverified(session, line, str(error))
    row = {"verified": True, "line": session.client_line(line)}
    column = wanted.integer("column")
    if column is not None and line == asked:
        statement = _statement_at(session, path, line, column)
        if statement is not None:
            fields["span"], row["column"] = statement
    return _add(session, path, line, fields, row)


def _add(session: Session, path: str, line: int, fields: dict[str, Any], row: dict[str, Any]) -> dict[str, Any]:
    debugger: Any = session.debugger
    error_text = debugger.set_break(path, line, **fields)
    if error_text is not None:
        return _unverified(session, line, error_text)
    number = debugger.get_breaks(path, line)[-1].number
    row["id"] = session.breakpoint_ids.new()
    session.breakpoint_ids.enter(number, row["id"])
    session.breakpoint_ids.of_file.setdefault(path, []).append(number)
    return row


def breakpoint_fields(wanted: Arguments) -> dict[str, Any]:
    """Condition, hit condition and text to be logged, as `set_break` takes them; ValueError for what is none."""
    condition = (wanted.text("condition") or "").strip() or None
    if condition is not None:
        compile_expression(condition)
    return {"cond": condition, "hit_condition": hit_condition(wanted.text("hitCondition")),
            "log_text": _log_text(wanted.text("logMessage"))}


def _statement_at(session: Session, path: str, line: int, column: int) -> tuple[Span, int] | None:
    """The statement of a line that a column is in, and its column; None for the first, which is the line itself."""
    found = None
    for span, start in _columns(session, path, line)[1:]:
        if start <= column:
            found = span, start
    return found


def _columns(session: Session, path: str, line: int) -> list[tuple[Span, int]]:
    """The statements of a line that has several, and the columns of the client where they begin."""
    spans = session.server.lines.statements(path).get(line, [])
    text = linecache.getline(path, line) if spans else ""
    return [(span, session.client_column(column_in_text(text, span[1]) + 1)) for span in spans]


def hit_condition(text: str | None) -> HitCondition | None:
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
    rows = []
    for line in session.server.lines.of(path):
        if first <= line <= last:
            rows.append({"line": session.client_line(line)})
            rows += [{"line": session.client_line(line), "column": column}
                     for _, column in _columns(session, path, line)[1:]]
    return {"breakpoints": rows}


HANDLERS: dict[str, Handler] = {
    "setBreakpoints": on_set_breakpoints,
    "breakpointLocations": on_breakpoint_locations,
}
