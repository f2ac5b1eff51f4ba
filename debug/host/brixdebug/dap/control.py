"""Requests that let the program go on, or stop it."""

from __future__ import annotations

import os
import signal
import threading

from brixdebug.dap.asking import RequestError
from brixdebug.dap.redirect import flush_streams
from brixdebug.dap.session import LATER
from brixdebug.monitor import monitor
from brixdebug.suspension import debugged_frames

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import FrameType
    from typing import Any

    from brixdebug.dap.session import Handler, Request, Session
    from brixdebug.dap.stopping import Stop


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
    only = _only(session, request)

    def go_on(session: Session, request: Request) -> Any:
        session.check_stop(stop)
        session.debugger.set_continue()
        _go_on(session, request, stop, only, {"allThreadsContinued": only is None})
        return LATER

    return request.later(go_on, session.debugger.doer(stop))


def _only(session: Session, request: Request) -> int | None:
    """The only thread that is to go on; None for all."""
    return _thread_id(session, request) if request.arguments.flag("singleThread") else None


def _go_on(session: Session, request: Request, stop: Stop, only: int | None, body: dict[str, Any] | None) -> None:
    ends = session.debugger.let_go(stop, only)
    if only is not None and not ends:
        session.tree.forget_thread(only)
    request.answer(body)
    if ends:
        stop.go_on()
        if stop.is_rest:
            session.tree.forget()


def _on_step(session: Session, request: Request, choose: Callable[[FrameType], Callable[[], None]],
             target: int | None = None, passes_calls: bool = True) -> Any:
    stop = session.stop()
    if request.arguments.text("granularity") == "instruction":
        raise RequestError("steps go from line to line; those of single instructions are not supported")
    thread_id = _thread_id(session, request)
    only = _only(session, request)
    session.check_held(thread_id)
    stack = session.tree.stack(thread_id)
    if not stack:
        raise RequestError("this thread has ended")
    frame = stack[0].frame

    def step(session: Session, request: Request) -> Any:
        session.check_stop(stop)
        session.debugger.step(stop, thread_id, frame, choose(frame), target, passes_calls)
        _go_on(session, request, stop, only, None)
        return LATER

    return request.later(step, session.debugger.doer(stop))


def on_next(session: Session, request: Request) -> Any:
    return _on_step(session, request, lambda frame: lambda: session.debugger.set_next(frame))


def on_step_in(session: Session, request: Request) -> Any:
    return _on_step(session, request, lambda frame: session.debugger.set_step, request.arguments.integer("targetId"))


def on_step_out(session: Session, request: Request) -> Any:
    return _on_step(session, request, lambda frame: lambda: session.debugger.set_return(frame), passes_calls=False)


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


def on_terminate(session: Session, request: Request) -> Any:
    """Send SIGTERM: the program's own handler may clean up."""
    request.answer()
    flush_streams(monitor.suspension.adopt_thread)
    stop = session.debugger.stop
    if stop is not None:
        stop.do(session.debugger.set_continue)
        stop.go_on()
    rest = session.debugger.rest
    if rest is not None:
        session.debugger.in_turn(lambda: session.debugger.end_rest(rest))
    os.kill(os.getpid(), signal.SIGTERM)
    return LATER


def on_terminate_threads(session: Session, request: Request) -> Any:
    """As if each called `sys.exit`, where it comes to a line of the user's own code next."""
    numbers = request.arguments.values.get("threadIds")
    if not isinstance(numbers, list) or not all(isinstance(each, int) for each in numbers):
        raise RequestError("terminateThreads: 'threadIds' has to be a list of integers")
    thread_ids = []
    for number in numbers:
        thread_id = session.tree.numbers.thing(number)
        if thread_id is None or thread_id not in debugged_frames():
            raise RequestError("there is no thread %d" % number)
        if thread_id == threading.main_thread().ident:
            raise RequestError("the main thread ends with the program: terminate ends both")
        thread_ids.append(thread_id)

    def end(session: Session, request: Request) -> Any:
        for thread_id in thread_ids:
            session.debugger.end_thread(thread_id)
        return {}

    return request.later(end, session.debugger.in_turn)


HANDLERS: dict[str, Handler] = {
    "threads": on_threads,
    "continue": on_continue,
    "next": on_next,
    "stepIn": on_step_in,
    "stepOut": on_step_out,
    "pause": on_pause,
    "terminate": on_terminate,
    "terminateThreads": on_terminate_threads,
}
