"""Data breakpoints: stops where the value of a variable, an attribute or an element has changed.

What the client watches is an expression in a frame, or in a module.  In a frame it looks at that
one call, as long as it lasts; an attribute of a local object is watched for as long as the object lives.
"""

from __future__ import annotations

import builtins
import sys
import types

from brixdebug.conditions import compile_expression
from brixdebug.dap import rendering
from brixdebug.dap.asking import RequestError
from brixdebug.dap.breakpoints import hit_condition
from brixdebug.watching import Watch

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

    from brixdebug.dap.asking import Arguments
    from brixdebug.dap.session import Handler, Request, Session
    from brixdebug.dap.variables import Child, Node
    from brixdebug.watching import Change

_GLOBAL = "global "              # before an expression in the data id of what any later stop may set
_PAGE = 1000                     # elements that are looked through at a time


def module_scope(names: dict[str, Any], code: Any = None) -> Any:
    """What stands for a frame where an expression has the names of a module and no others."""
    return types.SimpleNamespace(f_globals=names, f_locals=names, f_builtins=vars(builtins),
                                 f_code=code or types.SimpleNamespace(co_qualname="<module>", co_varnames=(),
                                                                      co_cellvars=(), co_freevars=()))


# -- what can be watched ---------------------------------------------------------------------------------

def on_data_breakpoint_info(session: Session, request: Request) -> Any:
    name = request.arguments.needed_text("name")
    number = request.arguments.integer("variablesReference", 0)
    frame_number = request.arguments.integer("frameId")
    if request.arguments.flag("asAddress"):
        return _nothing("memory is not watched by its address")
    if number:
        return _info_of_child(session, number, name)
    if frame_number is not None:
        frame = session.tree.frame(frame_number)
        if frame is None:
            raise RequestError("frame %d is gone: the program has gone on" % frame_number)
        return _info(name, lambda: session.tree.add_place(name, frame.frame))
    return {**_info(name, lambda: _GLOBAL + name), "canPersist": True}


def _info_of_child(session: Session, number: int, name: str) -> dict[str, Any]:
    node = session.tree.node(number)
    if node is None:
        raise RequestError("variable %d is gone: the program has gone on" % number)
    frame = session.tree.frame_of_node(number)
    child = session.server.boxed.call_each([lambda: _find_child(node, name)], lambda index: None)[0]
    if child is None or isinstance(child, BaseException):
        raise RequestError("there is no variable %s" % name)
    expression = child.evaluate_name
    if expression is None or frame is None:
        return _nothing("%s cannot be watched: no expression leads to it" % name)
    return _info(expression, lambda: session.tree.add_place(expression, frame))


def _find_child(node: Node, name: str) -> Child | None:
    for child in node.named():
        if child.name == name:
            return child
    for start in range(0, node.indexed_count(), _PAGE):
        for child in node.indexed(start, _PAGE):
            if child.name == name:
                return child
    return None


def _info(expression: str, make_id: Callable[[], str]) -> dict[str, Any]:
    try:
        compile_expression(expression)
    except ValueError as error:
        return _nothing("%s cannot be watched: %s" % (expression, error))
    return {"dataId": make_id(), "description": expression, "accessTypes": ["write"], "canPersist": False}


def _nothing(text: str) -> dict[str, Any]:
    return {"dataId": None, "description": text}


# -- what is watched -------------------------------------------------------------------------------------

class DataBreakpoints:
    """All those of a client, by their data ids."""

    def __init__(self, session: Session) -> None:
        self._session = session
        self._watches: dict[str, Watch] = {}
        self._ended: dict[str, str] = {}             # data id -> why it is watched no longer

    def replace(self, wanted: list[Arguments]) -> list[dict[str, Any]]:
        rows = {}
        for each in wanted:
            data_id = each.needed_text("dataId")
            try:
                rows[data_id] = self._set(data_id, each)
            except ValueError as error:
                rows[data_id] = {"verified": False, "message": str(error), "reason": "failed"}
        for data_id in [each for each in self._watches if not rows.get(each, {}).get("verified")]:
            watch = self._watches.pop(data_id)
            self._session.breakpoint_ids.drop(watch.number)
            self._session.debugger.clear_bpbynumber(watch.number)
        return [rows[each.needed_text("dataId")] for each in wanted]

    def _set(self, data_id: str, wanted: Arguments) -> dict[str, Any]:
        if wanted.text("accessType", "write") != "write":
            raise ValueError("only a change of the value can be stopped at")
        condition = (wanted.text("condition") or "").strip() or None
        if condition is not None:
            compile_expression(condition)
        hits = hit_condition(wanted.text("hitCondition"))
        watch = self._watches.get(data_id)
        if watch is None:
            watch = self._add(data_id, condition)
        if (watch.cond, str(watch.hit_condition)) != (condition, str(hits)):
            watch.cond, watch.hits = condition, 0
        watch.hit_condition = hits
        return {"id": self._session.breakpoint_ids.of(watch.number), "verified": True}

    def _add(self, data_id: str, condition: str | None) -> Watch:
        if data_id in self._ended:
            raise ValueError(self._ended[data_id])
        if data_id.startswith(_GLOBAL):
            names = vars(sys.modules["__main__"])
            place: tuple[str, Any] | None = data_id[len(_GLOBAL):], module_scope(names)
        else:
            place = self._session.tree.place(data_id)
        if place is None:
            raise ValueError("the program has gone on since this was chosen; choose it again")
        expression, frame = place
        watch = Watch(expression, frame, frame.f_locals, condition)
        self._watches[data_id] = watch
        self._session.debugger.add_watch(watch)
        self._session.breakpoint_ids.enter(watch.number, self._session.breakpoint_ids.new())
        return watch

    def end(self, watch: Watch) -> None:
        """There is nothing left to watch."""
        for data_id, each in list(self._watches.items()):
            if each is watch:
                del self._watches[data_id]
                self._ended[data_id] = text = "the call of %s() has ended" % watch.function if watch.is_of_call \
                    else "its object is gone"
                self._session.wire.event("breakpoint", {"reason": "changed", "breakpoint": {
                    "id": self._session.breakpoint_ids.of(watch.number), "verified": False, "message": text}})
                self._session.breakpoint_ids.drop(watch.number)


def change_text(session: Session, change: Change) -> str:
    """What has changed, and where."""
    def show(value: object) -> str:
        return next(rendering.page(session.server.boxed, [value]))

    text = "%s was %s, is %s" % (change.watch.expression, change.old.shown_by(show), change.new.shown_by(show))
    if change.code is None:
        return text
    return "%s; changed in %s(), line %d" % (text, change.code.co_qualname, session.client_line(change.line))


def on_set_data_breakpoints(session: Session, request: Request) -> Any:
    wanted = request.arguments.objects("breakpoints")

    def change(session: Session, request: Request) -> Any:
        data = session.kept.setdefault("data", DataBreakpoints(session))
        session.on_watch_end = data.end
        session.show_change = lambda change: change_text(session, change)
        return {"breakpoints": data.replace(wanted)}

    return request.later(change, session.debugger.in_turn)


HANDLERS: dict[str, Handler] = {
    "dataBreakpointInfo": on_data_breakpoint_info,
    "setDataBreakpoints": on_set_data_breakpoints,
}
