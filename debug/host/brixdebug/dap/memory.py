"""Requests that read and write memory: the bytes of an object, and nothing outside of it."""

from __future__ import annotations

import base64
import binascii

from brixdebug.dap import variables
from brixdebug.dap.asking import RequestError
from brixdebug.dap.expressions import say_changed

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

    from brixdebug.dap.session import Handler, Request, Session

_MOST_BYTES = 1 << 24         # of one answer


def _node_of(session: Session, request: Request) -> variables.BytesNode:
    reference = request.arguments.needed_text("memoryReference")
    node = session.tree.node(int(reference)) if reference.isascii() and reference.isdigit() else None
    if not isinstance(node, variables.BytesNode):
        raise RequestError("memory %s is gone: the program has gone on" % reference)
    return node


def on_read_memory(session: Session, request: Request) -> Any:
    node = _node_of(session, request)
    start = request.arguments.integer("offset", 0)
    count = request.arguments.needed_integer("count")
    data = node.read(start, max(0, min(count, _MOST_BYTES)))
    return {"address": "0x%x" % max(0, start), "data": base64.b64encode(data).decode(),
            "unreadableBytes": max(0, count - len(data))}


def on_write_memory(session: Session, request: Request) -> Any:
    """All of the data, or nothing; with `allowPartial` what falls inside of the object."""
    node = _node_of(session, request)
    offset = request.arguments.integer("offset", 0)
    is_partial = request.arguments.flag("allowPartial")
    try:
        data = base64.b64decode(request.arguments.needed_text("data"), validate=True)
    except (binascii.Error, ValueError):
        raise RequestError("writeMemory: 'data' has to be base64") from None
    stop = session.stop()

    def write(session: Session, request: Request) -> Any:
        session.check_stop(stop)
        try:
            start, count = node.write(offset, data, is_partial)
        except (LookupError, TypeError, ValueError) as error:
            raise RequestError("this memory cannot be written to: %s" % error) from None
        say_changed(session)
        return {"offset": start, "bytesWritten": count}

    return request.later(write, session.debugger.doer(stop))


# ADD-REQUEST: a handler like those above and its row, in the file of its subject. A new file joins the others in program.py.
HANDLERS: dict[str, Handler] = {
    "readMemory": on_read_memory,
    "writeMemory": on_write_memory,
}
