"""The requests that make a session, and the one that ends it."""

from __future__ import annotations

import os

from brixdebug.dap import arguments, capabilities, door
from brixdebug.dap.asking import RequestError
from brixdebug.dap.redirect import flush_streams
from brixdebug.dap.session import LATER
from brixdebug.dap.sources import PathMap
from brixdebug.dap.traffic import TrafficFile
from brixdebug.dap.wire import MAX_MESSAGE_BYTES
from brixdebug.libraries import Rule
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

    from brixdebug.dap.session import Handler, Request, Session

CLIENT_SECONDS = 60           # for a client that takes nothing: the threads of the program wait for it
OCCUPIED = "Another client is connected to this program."


def on_initialize(session: Session, request: Request) -> Any:
    if session.initialize:
        raise RequestError("initialize comes once")
    body = capabilities.answer(request.arguments)
    given = {name: value for name, value in request.arguments.values.items() if value is not None}
    session.initialize = {"linesStartAt1": True, "columnsStartAt1": True, **given}
    return body


def on_begin(session: Session, request: Request) -> Any:
    if session.has_begun:
        raise RequestError("%s comes once" % request.command)
    try:
        settings = arguments.parse(request.command, request.arguments.values)
    except arguments.ArgumentError as error:
        raise RequestError(str(error)) from None
    secret = session.server.secret
    if not session.is_trusted and (secret is None or not door.is_secret(settings.secret, secret)):
        session.is_leaving = True                    # one try for a connection
        request.refuse("this program lets in who gives its 'secret' in the arguments of attach")
        return LATER
    if not session.server.admit(session):
        session.is_leaving = True
        request.refuse(OCCUPIED)
        return LATER
    _begin_traffic(session, settings)
    if settings.ignored:
        session.say(arguments.ignored_text(settings))
    session.settings, session.given = settings, request.arguments.values
    session.has_begun = True
    session.wire.max_message_bytes = MAX_MESSAGE_BYTES
    session.wire.limit_writes(CLIENT_SECONDS)
    session.paths = PathMap(settings.path_mappings)
    session.debugger.shows_return_values = settings.show_return_value
    session.debugger.set_own_code(settings.just_my_code, [
        Rule(each["include"], session.paths.to_program(each["path"]) if "path" in each else None, each.get("module"))
        for each in settings.rules])
    if settings.redirect_output and not session.server.prints_to_client:
        session.server.redirect_output()
    session.begin_request = request
    if not settings.no_debug:
        session.debugger.in_turn(session.debugger.begin)
        session.server.on_client(True)
    session.wire.event("initialized")
    name, start_method = session.server.program
    session.wire.event("process", {"name": name, "systemProcessId": os.getpid(), "isLocalProcess": True,
                                   "startMethod": start_method, "pointerSize": 64})
    return LATER                                     # answered when the client has configured everything


def _begin_traffic(session: Session, settings: arguments.Settings) -> None:
    if not settings.log_to_file:
        session.wire.note_all(None)
        return
    try:
        traffic = TrafficFile(settings.log_to_file)
    except OSError as error:
        raise RequestError("'logToFile' cannot be written: %s" % error) from None
    session.wire.note_all(traffic.note)
    session.wire.event("output", {"category": "console", "output":
                                  "The messages of this session are written to %s\n" % traffic.path})


def on_configuration_done(session: Session, request: Request) -> Any:
    if session.is_configured or session.begin_request is None:
        raise RequestError("configurationDone comes once, after launch or attach")
    request.answer()
    session.begin_request.answer()
    if not session.settings.no_debug:
        session.thread_events.begin()
    session.is_configured = True
    session.server.configured.set()
    return LATER


def on_disconnect(session: Session, request: Request) -> Any:
    session.is_leaving = True
    # Only who was let in by launch or attach may end the program.
    kills = session.has_begun and request.arguments.flag("terminateDebuggee")
    request.answer()
    if kills:
        flush_streams(monitor.suspension.adopt_thread)
        os._exit(0)
    return LATER


HANDLERS: dict[str, Handler] = {
    "initialize": on_initialize,
    "launch": on_begin,
    "attach": on_begin,
    "configurationDone": on_configuration_done,
    "disconnect": on_disconnect,
}
