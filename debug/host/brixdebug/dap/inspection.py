"""Requests that look at the program: stacks, variables, expressions, sources."""

from __future__ import annotations

import linecache
import os
import traceback

from brixdebug.dap import rendering, variables
from brixdebug.dap.asking import RequestError
from brixdebug.dap.data_breakpoints import module_scope
from brixdebug.dap.moving import can_restart
from brixdebug.dap.sources import column_in_text, loaded_modules

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any

    from brixdebug.dap.asking import Arguments
    from brixdebug.dap.session import Handler, Request, Session
    from brixdebug.dap.tree import Frame

_MAX_PAGE = 10000             # variables of one answer, when the client names no number


def frame_of(session: Session, request: Request, name: str = "frameId") -> Frame:
    number = request.arguments.needed_integer(name)
    frame = session.tree.frame(number)
    if frame is None:
        raise RequestError("frame %d is gone: the program has gone on" % number)
    return frame


# -- stacks ------------------------------------------------------------------------------------------

def on_stack_trace(session: Session, request: Request) -> Any:
    session.stop()
    number = request.arguments.needed_integer("threadId")
    thread_id = session.tree.numbers.thing(number)
    if thread_id is None:
        raise RequestError("there is no thread %d" % number)
    session.check_held(thread_id)
    frames = session.tree.stack_with_tasks(thread_id)
    start = request.arguments.integer("startFrame", 0)
    count = request.arguments.integer("levels", 0) or len(frames)
    form = request.arguments.object("format")
    return {"stackFrames": [_stack_frame(session, each, form) for each in frames[start:start + count]],
            "totalFrames": len(frames)}


def _stack_frame(session: Session, each: Frame, form: Arguments) -> dict[str, Any]:
    if each.label:
        return {"id": each.number, "name": each.label, "line": 0, "column": 0, "presentationHint": "label"}
    code = each.frame.f_code
    name = code.co_qualname
    if form.flag("module"):
        name = "%s.%s" % (each.frame.f_globals.get("__name__", "?"), name)
    if form.flag("line"):
        name += " : %d" % each.line
    row: dict[str, Any] = {"id": each.number, "name": name, "line": session.client_line(each.line),
                           "column": session.client_column(_column(session, each) + 1)}
    row["canRestart"] = can_restart(session, each)
    source = session.source(code.co_filename)
    is_own = session.debugger.is_own_code(code)
    if source is not None:
        row["source"] = source if is_own else {**source, "presentationHint": "deemphasize"}
    if source is None or not is_own:
        row["presentationHint"] = "subtle"
    return row


def _column(session: Session, each: Frame) -> int:
    """Where in its line the frame stands, from 0: known where it has stopped inside it."""
    stop = session.debugger.stop
    if stop is None or stop.column is None or stop.frame is not each.frame:
        return 0
    return column_in_text(linecache.getline(each.frame.f_code.co_filename, each.line), stop.column)


# -- variables ------------------------------------------------------------------------------------------

def on_scopes(session: Session, request: Request) -> Any:
    frame = frame_of(session, request).frame
    local_names = variables.NamesNode(lambda: _locals(frame), lambda name, value: _assign(session, frame, name, value))
    scopes = [{"name": "Locals", "presentationHint": "locals", "expensive": False,
               "variablesReference": session.tree.add(_with_returned(session, frame, local_names), frame)}]
    if frame.f_locals is not frame.f_globals:
        global_names = variables.NamesNode(lambda: frame.f_globals, frame.f_globals.__setitem__)
        scopes.append({"name": "Globals", "expensive": False,
                       "variablesReference": session.tree.add(
                           global_names, module_scope(frame.f_globals, frame.f_code))})
    return {"scopes": scopes}


_RETURNED = "(return) "       # begins the name of a row that is no variable


def _locals(frame: FrameType) -> Any:
    return frame.f_locals


class _LocalsNode(variables.Node):
    """The variables of a frame, after what the functions called last have returned."""

    def __init__(self, returned: list[tuple[str, object]], names: variables.NamesNode) -> None:
        self._returned = [variables.Child(_RETURNED + name, value, None, "virtual") for name, value in returned]
        self._names = names

    def named(self) -> list[variables.Child]:
        return [*self._returned, *self._names.named()]

    def assign(self, name: str, value: Any) -> None:
        if name.startswith(_RETURNED):
            raise LookupError("it is what a function has returned")
        self._names.assign(name, value)


def _with_returned(session: Session, frame: FrameType, names: variables.NamesNode) -> variables.Node:
    stop = session.debugger.stop
    if stop is None or not stop.returned or stop.returned_to is not frame:
        return names
    return _LocalsNode(stop.returned, names)


def _assign(session: Session, frame: FrameType, name: str, value: Any) -> None:
    frame.f_locals[name] = value
    session.debugger.give_locals_back(frame)


def on_variables(session: Session, request: Request) -> Any:
    number = request.arguments.needed_integer("variablesReference")
    node = session.tree.node(number)
    if node is None:
        raise RequestError("variable %d is gone: the program has gone on" % number)
    which = request.arguments.text("filter")
    start = max(0, request.arguments.integer("start", 0))
    count = request.arguments.integer("count", 0) or _MAX_PAGE
    is_hex = request.arguments.object("format").flag("hex")

    def collect() -> list[variables.Child]:
        children = [] if which == "indexed" or start and which != "named" else node.named()
        if which == "named":
            return children[start:start + count]
        return children + node.indexed(start, min(count, max(0, node.indexed_count() - start)))

    result = session.server.boxed.call_each(
        [collect], lambda index: RequestError("these variables cannot be had: their object's own code does not end"))[0]
    if isinstance(result, BaseException):
        raise result if isinstance(result, RequestError) else RequestError(rendering.error_text(result))
    return {"variables": session.tree.rows(result, is_hex, session.tree.frame_of_node(number))}


# -- exceptions ------------------------------------------------------------------------------------------

def on_exception_info(session: Session, request: Request) -> Any:
    stop = session.stop()
    number = request.arguments.needed_integer("threadId")
    exception = stop.exception
    if exception is None or session.tree.numbers.thing(number) != stop.thread_id:
        raise RequestError("this thread has not stopped at an exception")
    result = session.server.boxed.call_each(
        [lambda: _exception_details(exception, [])], lambda index: {"message": "<its text has not been had in time>"})[0]
    details = result if isinstance(result, dict) else {"message": rendering.error_text(result)}
    return {"exceptionId": rendering.type_name(type(exception)), "description": details["message"],
            "breakMode": "always" if not stop.is_uncaught else "userUnhandled" if stop.below is not None else "unhandled",
            "details": details}


def _exception_details(exception: BaseException, seen: list[BaseException]) -> dict[str, Any]:
    """In the protocol's form, with what it came from inside."""
    seen.append(exception)
    kind = type(exception)
    details: dict[str, Any] = {"message": _text(exception), "typeName": kind.__qualname__,
                               "fullTypeName": rendering.type_name(kind),
                               "stackTrace": "".join(traceback.format_exception(exception, chain=False))}
    inner: list[BaseException | None] = [exception.__cause__] if exception.__cause__ is not None else \
        [exception.__context__] if not exception.__suppress_context__ else []
    if isinstance(exception, BaseExceptionGroup):
        inner += exception.exceptions
    details["innerException"] = [_exception_details(each, seen) for each in inner
                                 if each is not None and all(each is not known for known in seen)]
    return details


def _text(exception: BaseException) -> str:
    """Its text and its notes."""
    notes = getattr(exception, "__notes__", None)
    return "\n".join([str(exception), *(map(str, notes) if isinstance(notes, list) else ())])


# -- sources ---------------------------------------------------------------------------------------------

def on_source(session: Session, request: Request) -> Any:
    reference = request.arguments.integer("sourceReference", 0) \
        or request.arguments.object("source").integer("sourceReference", 0)
    name = session.sources.get(reference)
    text = "".join(linecache.getlines(name)) if name is not None else ""
    if not text:
        raise RequestError("there is no source text")
    return {"content": text, "mimeType": "text/x-python"}


def on_modules(session: Session, request: Request) -> Any:
    rows = []
    for name, names in loaded_modules():
        path = names.get("__file__")
        row: dict[str, Any] = {"id": name, "name": name}
        if isinstance(path, str):
            row["path"] = session.client_path(path)
        version = names.get("__version__")
        if isinstance(version, str):
            row["version"] = version
        rows.append(row)
    start = request.arguments.integer("startModule", 0)
    count = request.arguments.integer("moduleCount", 0) or len(rows)
    return {"modules": rows[start:start + count], "totalModules": len(rows)}


def on_loaded_sources(session: Session, request: Request) -> Any:
    paths = {path for _, names in loaded_modules() if isinstance(path := names.get("__file__"), str)}
    return {"sources": [session.source(path) for path in sorted(paths) if path.endswith(".py") and os.path.exists(path)]}


HANDLERS: dict[str, Handler] = {
    "stackTrace": on_stack_trace,
    "scopes": on_scopes,
    "variables": on_variables,
    "source": on_source,
    "exceptionInfo": on_exception_info,
    "modules": on_modules,
    "loadedSources": on_loaded_sources,
}
