"""Requests that let the program go on, or stop it."""

from __future__ import annotations

import os
import signal
import sys

from brixdebug.dap.asking import RequestError
from brixdebug.dap.server import LATER
from brixdebug.suspension import debugged_frames

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import FrameType
    from typing import Any

    from brixdebug.dap.server import Handler, Request, Session


def _thread_id(session: Session, request: Request) -> int:
    number = request.arguments.needed_integer("threadId")
    thread_id = session.tree.numbers.thing(number)
    if thread_id is None or thread_id not in debugged_frames():
        raise RequestError("there is no thread %d" % number)
    return thread_id


def on_threads(session: Session, request: Request) -> Any:
    return {"threads": [{"id": number, "name": name} for number, name in session.tree.threads()]}


def on_continue(session: Session, request: Request) -> Any:
    stop = session.stop()

    def go_on() -> None:
        session.debugger.set_continue()
        request.answer({"allThreadsContinued": True})
        stop.go_on()

    stop.do(go_on)
    return LATER


def _on_step(session: Session, request: Request, choose: Callable[[FrameType], Callable[[], None]]) -> Any:
    stop = session.stop()
    thread_id = _thread_id(session, request)
    stack = session.tree.stack(thread_id)
    if not stack:
        raise RequestError("this thread has ended")
    frame = stack[0].frame

    def step() -> None:
        session.debugger.step(stop, thread_id, frame, choose(frame))
        request.answer()
        stop.go_on()

    stop.do(step)
    return LATER


def on_next(session: Session, request: Request) -> Any:
    return _on_step(session, request, lambda frame: lambda: session.debugger.set_next(frame))


def on_step_in(session: Session, request: Request) -> Any:
    return _on_step(session, request, lambda frame: session.debugger.set_step)


def on_step_out(session: Session, request: Request) -> Any:
    return _on_step(session, request, lambda frame: lambda: session.debugger.set_return(frame))


def on_pause(session: Session, request: Request) -> Any:
    number = request.arguments.integer("threadId", 0)
    thread_id = session.tree.numbers.thing(number)
    if thread_id is None or thread_id not in debugged_frames():
        thread_id = next(iter(sorted(debugged_frames(), key=session.thread_number)), None)
    if thread_id is None:
        raise RequestError("the program has no thread that could be paused")
    request.answer()
    if session.debugger.stop is None:
        session.debugger.pause(thread_id)
    return LATER


def on_goto_targets(session: Session, request: Request) -> Any:
    line = request.arguments.needed_integer("line")
    path = session.program_path(request.arguments.object("source"))
    first = session.server.lines.next_from(path, line)
    targets = [] if first is None else [{"id": first, "label": "line %d" % first, "line": first}]
    return {"targets": targets}


def on_goto(session: Session, request: Request) -> Any:
    stop = session.stop()
    line = request.arguments.needed_integer("targetId")
    thread_id = _thread_id(session, request)
    stack = session.tree.stack(thread_id)
    if stop.thread_id != thread_id or not stack or stack[0].frame is not stop.frame or stop.reason == "pause":
        raise RequestError("only the thread that has stopped can be moved to another line")
    settable: Any = stack[0].frame

    def go_to() -> None:
        try:
            settable.f_lineno = line
        except ValueError as error:
            request.refuse("cannot go to line %d: %s" % (line, error))
            return
        request.answer()
        session.tree.begin(stop)
        stop.reason = "goto"
        session.show_stop(stop)

    stop.do(go_to)
    return LATER


def on_terminate(session: Session, request: Request) -> Any:
    """As a polite stranger would: the program's own handler of SIGTERM may clean up."""
    request.answer()
    sys.stdout.flush()
    stop = session.debugger.stop
    if stop is not None:
        stop.do(session.debugger.set_continue)
        stop.go_on()
    os.kill(os.getpid(), signal.SIGTERM)
    return LATER


HANDLERS: dict[str, Handler] = {
    "threads": on_threads,
    "continue": on_continue,
    "next": on_next,
    "stepIn": on_step_in,
    "stepOut": on_step_out,
    "pause": on_pause,
    "gotoTargets": on_goto_targets,
    "goto": on_goto,
    "terminate": on_terminate,
}
