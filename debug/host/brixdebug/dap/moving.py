"""Requests about where a thread goes next: another line, the start of its function, into one of a line's calls."""

from __future__ import annotations

import ast
import dis
import inspect
import linecache
import os

from brixdebug.dap.asking import RequestError
from brixdebug.dap.sources import column_in_text, stop_lines

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any

    from brixdebug.dap.session import Handler, Request, Session
    from brixdebug.dap.stopping import Stop
    from brixdebug.dap.tree import Frame


# -- other lines -----------------------------------------------------------------------------------------

def _movable_frame(session: Session, stop: Stop, frame: Frame | None) -> Any:
    """The frame that the stopped thread executes; no other can be moved."""
    if frame is None or frame.thread_id != stop.thread_id or frame.frame is not stop.frame \
            or stop.reason == "pause" or stop.is_uncaught:
        raise RequestError("only the function that the thread has stopped in can go on at another line")
    return frame.frame


def on_goto_targets(session: Session, request: Request) -> Any:
    line = session.program_line(request.arguments.needed_integer("line"))
    path = session.program_path(request.arguments.object("source"))
    first = session.server.lines.next_from(path, line)
    if first is None:
        return {"targets": []}
    targets: dict[int, tuple[str, int]] = session.kept.setdefault("goto", {})
    number = len(targets) + 1
    targets[number] = path, first
    shown = session.client_line(first)
    return {"targets": [{"id": number, "label": "line %d" % shown, "line": shown}]}


def on_goto(session: Session, request: Request) -> Any:
    stop = session.stop()
    target = session.kept.get("goto", {}).get(request.arguments.needed_integer("targetId"))
    if target is None:
        raise RequestError("there is no such target")
    path, line = target
    thread_id = session.tree.numbers.thing(request.arguments.needed_integer("threadId"))
    if thread_id is None:
        raise RequestError("there is no thread %d" % request.arguments.values["threadId"])
    stack = session.tree.stack(thread_id)
    frame = _movable_frame(session, stop, stack[0] if stack else None)
    if os.path.realpath(frame.f_code.co_filename) != os.path.realpath(path):
        raise RequestError("cannot go to line %d of another file: %s() is in %s" % (
            session.client_line(line), frame.f_code.co_name, session.paths.to_client(frame.f_code.co_filename)))
    if line not in stop_lines(frame.f_code):         # the interpreter would take the next line that is
        raise RequestError("cannot go to line %d: it is not in %s, where the thread stands" % (
            session.client_line(line), frame.f_code.co_qualname))
    return request.later(lambda session, request: _move(session, request, stop, frame, line, "goto"), stop.do)


def on_restart_frame(session: Session, request: Request) -> Any:
    stop = session.stop()
    number = request.arguments.needed_integer("frameId")
    known = session.tree.frame(number)
    if known is None:
        raise RequestError("frame %d is gone: the program has gone on" % number)
    frame = _movable_frame(session, stop, known)
    if not can_restart(session, known):
        raise RequestError("only a function can be started again, and no generator or coroutine")
    first = min(stop_lines(frame.f_code))
    return request.later(lambda session, request: _move(session, request, stop, frame, first, "restart"), stop.do)


def can_restart(session: Session, each: Frame) -> bool:
    """Its arguments and variables stay what they are; the interpreter can put nothing else back."""
    stop = session.debugger.stop
    flags = each.frame.f_code.co_flags
    return stop is not None and each.frame is stop.frame and stop.reason != "pause" and not stop.is_uncaught \
        and bool(flags & inspect.CO_OPTIMIZED) \
        and not flags & (inspect.CO_GENERATOR | inspect.CO_COROUTINE | inspect.CO_ASYNC_GENERATOR)


def _move(session: Session, request: Request, stop: Stop, frame: Any, line: int, reason: str) -> Any:
    """In the stopped thread.  The interpreter knows where it can go."""
    try:
        frame.f_lineno = line
    except ValueError as error:
        raise RequestError("cannot go to line %d: %s" % (session.client_line(line), error)) from None
    request.answer()
    session.tree.begin(stop)
    stop.reason, stop.text, stop.column = reason, "", None
    session.show_stop(stop)
    return {}


# -- calls of a line -------------------------------------------------------------------------------------

def on_step_in_targets(session: Session, request: Request) -> Any:
    session.stop()
    number = request.arguments.needed_integer("frameId")
    known = session.tree.frame(number)
    if known is None:
        raise RequestError("frame %d is gone: the program has gone on" % number)
    return {"targets": [_target(session, known.frame, each) for each in _calls(known.frame, known.line)]}


def _calls(frame: FrameType, line: int) -> list[dis.Instruction]:
    """The calls that the line has still to make, in their order."""
    return [each for each in dis.get_instructions(frame.f_code)
            if each.opname.startswith("CALL") and not each.opname.startswith("CALL_INTRINSIC")
            and each.positions is not None and each.positions.lineno is not None and each.offset > frame.f_lasti
            and each.positions.lineno <= line <= (each.positions.end_lineno or line)]


def _target(session: Session, frame: FrameType, call: dis.Instruction) -> dict[str, Any]:
    positions: Any = call.positions
    lines = linecache.getlines(frame.f_code.co_filename)[positions.lineno - 1:positions.end_lineno]
    row: dict[str, Any] = {"id": call.offset, "label": "the call at line %d" % session.client_line(positions.lineno)}
    if lines and positions.col_offset is not None:
        row["line"], row["endLine"] = map(session.client_line, (positions.lineno, positions.end_lineno))
        row["column"], row["endColumn"] = (session.client_column(column_in_text(text, column) + 1) for text, column in (
            (lines[0], positions.col_offset), (lines[-1], positions.end_col_offset)))
        row["label"] = _called(lines, positions) or row["label"]
    return row


def _called(lines: list[str], positions: Any) -> str | None:
    """The text of what is called."""
    source = [line.encode() for line in lines]
    source[-1] = source[-1][:positions.end_col_offset]
    source[0] = source[0][positions.col_offset:]
    try:
        tree: Any = ast.parse("(%s)" % b"".join(source).decode(errors="replace"), mode="eval").body
        return ast.unparse(tree.func if isinstance(tree, ast.Call) else tree)
    except (SyntaxError, ValueError):
        return None


HANDLERS: dict[str, Handler] = {
    "gotoTargets": on_goto_targets,
    "goto": on_goto,
    "restartFrame": on_restart_frame,
    "stepInTargets": on_step_in_targets,
}
