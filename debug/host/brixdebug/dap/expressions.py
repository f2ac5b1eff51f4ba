"""Requests that run code of the user's in the stopped thread: expressions, statements, assignments."""

from __future__ import annotations

import _thread
import codeop
import rlcompleter

from brixdebug.dap import rendering
from brixdebug.dap.asking import RequestError
from brixdebug.dap.inspection import frame_of
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import FrameType
    from typing import Any

    from brixdebug.dap.session import Handler, Request, Session

_MAX_COMPLETIONS = 500
_PROGRESS_SECONDS = 1.0       # before the client gets a message that something takes its time
_MAX_TITLE = 100


def on_set_variable(session: Session, request: Request) -> Any:
    number = request.arguments.needed_integer("variablesReference")
    name = request.arguments.needed_text("name")
    text = request.arguments.needed_text("value")
    node = session.tree.node(number)
    if node is None:
        raise RequestError("variable %d is gone: the program has gone on" % number)
    stop = session.stop()

    def assign(session: Session, request: Request) -> Any:
        frame = stop.frame
        value = _evaluate(request, text, frame)
        try:
            node.assign(name, value)
        except BaseException as error:
            raise RequestError("%s cannot be set: %s" % (name, rendering.error_text(error))) from None
        say_changed(session)
        return _described(session, value, None, request)

    return request.later(assign, stop.do)


def on_set_expression(session: Session, request: Request) -> Any:
    target = request.arguments.needed_text("expression")
    text = request.arguments.needed_text("value")
    frame = frame_of(session, request).frame if request.arguments.integer("frameId") is not None else None
    stop = session.stop()

    def assign(session: Session, request: Request) -> Any:
        place = frame if frame is not None else stop.frame
        value = _evaluate(request, text, place)
        _execute(request, "%s = (%s)" % (target, text), place)
        say_changed(session)
        return _described(session, value, target, request)

    return request.later(assign, stop.do)


def _described(session: Session, value: Any, path: str | None, request: Request) -> dict[str, Any]:
    is_hex = request.arguments.object("format").flag("hex")
    text = next(rendering.page(session.server.boxed, [value], is_hex=is_hex))
    return {"value": text, **session.tree.describe(value, path)}


def on_evaluate(session: Session, request: Request) -> Any:
    text = request.arguments.needed_text("expression")
    context = request.arguments.text("context", "repl")
    stop = session.stop()
    frame = frame_of(session, request).frame if request.arguments.integer("frameId") is not None else stop.frame

    def evaluate(session: Session, request: Request) -> Any:
        is_statement = False
        try:
            value = _evaluate(request, text, frame)
        except _NoExpression as error:
            if context not in ("repl", "clipboard") or not _is_complete(text):
                raise RequestError(str(error)) from None
            _execute(request, text, frame)
            is_statement = True
        if is_statement:
            say_changed(session)
            return {"result": "", "variablesReference": 0}
        return _evaluated(session, request, value, text, context, frame)

    return request.later(evaluate, stop.do)


def _evaluated(session: Session, request: Request, value: Any, text: str, context: str,
               frame: FrameType | None) -> dict[str, Any]:
    limit = rendering.MAX_WHOLE_CHARACTERS if context == "repl" else rendering.MAX_CHARACTERS
    if context == "clipboard":
        return {"result": rendering.whole(session.server.boxed, value), "variablesReference": 0}
    if context == "repl" and value is None:
        return {"result": "", "variablesReference": 0}
    is_hex = request.arguments.object("format").flag("hex")
    shown = next(rendering.page(session.server.boxed, [value], limit, is_hex))
    return {"result": shown, **session.tree.describe(value, text, frame)}


class _NoExpression(RequestError):
    """The text is no expression."""


def _compiled(text: str, mode: str) -> Any:
    try:
        return compile(text, "<expression>", mode, dont_inherit=True)
    except (SyntaxError, ValueError, OverflowError, RecursionError) as error:
        raise _NoExpression(rendering.error_text(error)) from None


def _evaluate(request: Request, text: str, frame: FrameType | None) -> Any:
    if frame is None:
        raise RequestError("there is no frame to evaluate in")
    code = _compiled(text.strip(), "eval")
    return _run(request, lambda: eval(code, frame.f_globals, frame.f_locals))


def _execute(request: Request, text: str, frame: FrameType | None) -> None:
    if frame is None:
        raise RequestError("there is no frame to run it in")
    code = _compiled(text, "exec")
    try:
        _run(request, lambda: exec(code, frame.f_globals, frame.f_locals))
    finally:
        request.session.debugger.give_locals_back(frame)


def _run(request: Request, call: Callable[[], Any]) -> Any:
    """What `call` returns.  It may need another thread: after a second all go on until it has ended."""
    session = request.session
    evaluation = monitor.suspension.evaluation
    progress = _Progress(request) if session.supports("supportsProgressReporting") else None
    running = session.runs(request)
    evaluation.were_others_free = False

    def evaluate() -> Any:
        if request.is_answered:              # cancelled before it could be interrupted
            raise KeyboardInterrupt
        return call()

    try:
        with running:
            return evaluation.run(evaluate)
    except BaseException as error:
        raise RequestError(rendering.error_text(error)) from None
    finally:
        session.running = None
        if progress is not None:
            progress.end()
        if evaluation.were_others_free and session.supports("supportsInvalidatedEvent"):
            session.wire.event("invalidated", {"areas": ["all"]})


class _Progress:
    """Tells the client of a request that takes long, from a thread of the debugger's own."""

    def __init__(self, request: Request) -> None:
        self._request = request
        self._running = _thread.allocate_lock()
        self._running.acquire()
        self._told = _thread.allocate_lock()         # until the end has been reported
        self._told.acquire()
        _thread.start_new_thread(self._run, ())

    def end(self) -> None:
        self._running.release()
        self._told.acquire()

    def _run(self) -> None:
        monitor.suspension.adopt_thread()
        wire, seq = self._request.session.wire, self._request.message["seq"]
        try:
            if not self._running.acquire(timeout=_PROGRESS_SECONDS):
                text = self._request.arguments.values.get("expression", self._request.command)
                wire.event("progressStart", {"progressId": _PROGRESS_ID % seq, "requestId": seq, "cancellable": True,
                                             "title": "Evaluating %s" % text[:_MAX_TITLE]})
                self._running.acquire()
                wire.event("progressEnd", {"progressId": _PROGRESS_ID % seq})
        finally:
            self._told.release()


_PROGRESS_ID = "request %d"


def on_cancel(session: Session, request: Request) -> Any:
    """What waits for its turn is not done; what runs gets a KeyboardInterrupt.  The client need not wait for that."""
    progress = request.arguments.text("progressId")
    seq = request.arguments.integer("requestId", 0)
    if progress is not None:
        seq = next((each for each in list(session.pending) if _PROGRESS_ID % each == progress), 0)
    cancelled = session.pending.get(seq)
    if cancelled is not None:
        cancelled.refuse("cancelled", "cancelled")           # first: what begins now sees it
        if session.running is not None and session.running.request is cancelled:
            session.running.cancel()
    return {}


def say_changed(session: Session) -> None:
    """What the client shows of variables and of memory may be old."""
    if session.supports("supportsInvalidatedEvent"):
        session.wire.event("invalidated", {"areas": ["variables"]})
    if session.supports("supportsMemoryEvent"):
        for reference, size in session.tree.writable_memory():
            session.wire.event("memory", {"memoryReference": reference, "offset": 0, "count": size})


def _is_complete(text: str) -> bool:
    try:
        return codeop.compile_command(text + "\n\n", symbol="exec") is not None
    except (SyntaxError, ValueError, OverflowError):
        return True                          # the error that running it gives is the better one


def on_completions(session: Session, request: Request) -> Any:
    text = request.arguments.needed_text("text")
    column = request.arguments.needed_integer("column") - session.client_column(1)
    if request.arguments.integer("line") is not None:        # else the column counts from the beginning of the text
        before = text.split("\n")[:max(0, session.program_line(request.arguments.integer("line")) - 1)]
        column += sum(len(each) + 1 for each in before)
    stop = session.stop()
    frame = frame_of(session, request).frame if request.arguments.integer("frameId") is not None else stop.frame
    line = text[:max(0, column)].split("\n")[-1]
    start = len(line)
    while start and (line[start - 1].isalnum() or line[start - 1] in "_."):
        start -= 1
    word = line[start:]

    def complete(session: Session, request: Request) -> Any:
        names = {**frame.f_globals, **frame.f_locals} if frame is not None else {}
        completer = rlcompleter.Completer(names)
        matches = (completer.attr_matches(word) if "." in word else completer.global_matches(word)) if word else []
        prefix = len(word) - len(word.rpartition(".")[2])
        targets = [{"label": match[prefix:].rstrip("( "), "start": column - len(word) + prefix,
                    "length": len(word) - prefix} for match in sorted(set(matches))[:_MAX_COMPLETIONS]]
        return {"targets": targets}

    return request.later(complete, stop.do)


HANDLERS: dict[str, Handler] = {
    "setVariable": on_set_variable,
    "setExpression": on_set_expression,
    "evaluate": on_evaluate,
    "completions": on_completions,
    "cancel": on_cancel,
}
