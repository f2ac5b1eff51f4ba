"""The request that says at which exceptions threads stop."""

from __future__ import annotations

import builtins
import sys

from brixdebug.exceptions import RAISED, UNCAUGHT, UNHANDLED, parse_rule

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterator
    from typing import Any

    from brixdebug.dap.asking import Arguments
    from brixdebug.dap.session import Handler, Request, Session

_KINDS = {"raised": RAISED, "uncaught": UNCAUGHT, "userUnhandled": UNHANDLED}      # by filters
_FILTERS = {"always": "raised", "unhandled": "uncaught", "userUnhandled": "userUnhandled"}     # by break modes


def on_set_exception_breakpoints(session: Session, request: Request) -> Any:
    wanted = [(name, "") for name in request.arguments.texts("filters")]
    wanted += [(each.needed_text("filterId"), each.text("condition", ""))
               for each in request.arguments.objects("filterOptions")]
    for each in request.arguments.objects("exceptionOptions"):
        wanted += _of_option(each)

    def change(session: Session, request: Request) -> Any:
        session.debugger.exception_stops.clear()
        rows = [_add_rule(session, name, condition) for name, condition in wanted]
        session.debugger.exceptions_changed()
        return {"breakpoints": rows}

    return request.later(change, session.debugger.in_turn)


def _of_option(option: Arguments) -> Iterator[tuple[str, str]]:
    """A filter and its condition for each class; the first step of a path is the language."""
    mode = option.needed_text("breakMode")
    if mode == "never":
        return
    steps = option.objects("path")[1:]
    for name in (steps[-1].texts("names") if steps else [""]):
        yield _FILTERS.get(mode, mode), name


def _add_rule(session: Session, name: str, condition: str) -> dict[str, Any]:
    try:
        kind = _KINDS.get(name)
        if kind is None:
            raise ValueError("there is no filter %r" % name)
        if kind == UNHANDLED and not session.debugger.just_my_code:
            raise ValueError("with 'justMyCode' off no code is a library's")
        session.debugger.exception_stops.add(parse_rule(condition, _find_class, kind))
    except ValueError as error:
        return {"verified": False, "message": str(error), "reason": "failed"}
    return {"verified": True}


def _find_class(name: str) -> object:
    """A class by its name, built in or in a module that has been imported."""
    module_name, _, rest = name.rpartition(".")
    found: object = sys.modules[module_name] if module_name else builtins
    return getattr(found, rest)


HANDLERS: dict[str, Handler] = {
    "setExceptionBreakpoints": on_set_exception_breakpoints,
}
